#!/usr/bin/env bash
# Fails when a comment points to a section of docs/compatibility.md that is not there.
# usage: markers.sh SOURCE_FOLDER
set -uo pipefail
cd "$1" || exit 2

failures=0
markers=0
while IFS= read -r section; do
  markers=$((markers + 1))
  if ! grep -qxF "## $section" docs/compatibility.md; then
    echo "markers: docs/compatibility.md has no section \"$section\""
    failures=$((failures + 1))
  fi
done < <(grep -rhoE --include='*.h' --include='*.cpp' '// Fixed: docs/compatibility.md, "[^"]*"' src platform host cli include |
  sed -E 's/.*, "([^"]*)"/\1/')

((markers > 0)) || { echo "markers: none found, so nothing was checked"; exit 1; }
((failures == 0)) && echo "markers: all $markers lead to a section"
exit $((failures > 0))
