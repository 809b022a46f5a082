#!/usr/bin/env bash
# Installs what is missing and builds.
# usage: scripts/build.sh [PRESET [TARGET...]]      PRESET: release (default), debug, asan-ubsan, tsan, fuzz, windows
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

preset=${1:-release}
shift $(($# > 0 ? 1 : 0))

if [[ "$preset" == windows ]]; then
  scripts/dependencies.sh windows
elif [[ "${TANSY_CMAKE_ARGS:-}" == *TANSY_BUILD_TESTS=OFF* ]]; then
  scripts/dependencies.sh --no-tests
else
  scripts/dependencies.sh
fi
cmake --preset "$preset" ${TANSY_CMAKE_ARGS:-} >/dev/null
targets=()
for target in "$@"; do
  targets+=(--target "$target")
done
cmake --build --preset "$preset" "${targets[@]}"
