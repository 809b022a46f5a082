#!/usr/bin/env bash
# Makes the package of a build and prints its path.
# usage: make_package.sh BUILD_FOLDER FOLDER
set -euo pipefail
build=$(cd "$1" && pwd)
mkdir -p "$2"
folder=$(cd "$2" && pwd)

rm -f "$folder"/tansyd_*.deb
# What the tools say on the way is of interest only when they fail.
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! cpack --config "$build/CPackConfig.cmake" -B "$folder" >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi
rm -rf "$folder/_CPack_Packages"
ls "$folder"/tansyd_*.deb
