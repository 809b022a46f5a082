#!/usr/bin/env bash
# Builds the package for Debian and prints its path. With --test it is also installed into a fresh system of its own, below a
# temporary folder, and has to serve there; that takes a minute or more, downloads from the machine's Debian mirror, and needs root.
# usage: scripts/package.sh [--test] [FOLDER]      FOLDER: where the package goes [build/package]
set -euo pipefail
started_in=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")/.."

with_test=false
if [[ "${1:-}" == --test ]]; then
  with_test=true
  shift
fi
folder=$PWD/build/package
[[ -z "${1:-}" ]] || folder=$(cd "$started_in" && mkdir -p "$1" && cd "$1" && pwd)

scripts/dependencies.sh --package >&2
TANSY_CMAKE_ARGS=${TANSY_CMAKE_ARGS:--DTANSY_BUILD_TESTS=OFF} scripts/build.sh release >&2
package=$(tests/package/make_package.sh build "$folder")
! $with_test || tests/package/fresh_system.sh "$package" >&2
echo "$package"
