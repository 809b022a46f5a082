#!/usr/bin/env bash
# Checks formatting, then runs clang-tidy over the sources (or over those named).
# usage: scripts/lint.sh [--format-only] [FILE...]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/dependencies.sh --lint
format_only=false
if [[ "${1:-}" == --format-only ]]; then
  format_only=true
  shift
fi

git ls-files -z '*.cpp' '*.h' '*.inl' | xargs -0 clang-format-14 --dry-run --Werror
$format_only && exit 0

TANSY_CMAKE_ARGS=-DTANSY_BUILD_TESTS=ON scripts/build.sh release
if (($# > 0)); then
  files=("$@")
else
  mapfile -t files < <(git ls-files 'platform/*.cpp' 'src/*.cpp' 'host/*.cpp' 'cli/*.cpp' ':!platform/*/windows/*')
fi
# The build's warnings are the other compiler's; clang does not know all of their names.
printf '%s\0' "${files[@]}" |
  xargs -0 -n 1 -P "$(nproc)" clang-tidy-14 -p build --quiet --extra-arg=-Wno-unknown-warning-option
