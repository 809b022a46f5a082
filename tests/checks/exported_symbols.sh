#!/usr/bin/env bash
# Compares what the module exports with the list of its documented entry points.
# usage: exported_symbols.sh LIBRARY ALLOW_LIST
set -euo pipefail

actual=$(nm --dynamic --defined-only --demangle "$1" | cut -d' ' -f3- | LC_ALL=C sort -u)
expected=$(grep -vE '^(#|$)' "$2" | LC_ALL=C sort -u)
if [[ "$actual" != "$expected" ]]; then
  echo "exported symbols differ from the list ('<' listed only, '>' exported only):"
  diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi
echo "exported symbols: $(echo "$actual" | wc -l), as listed"
