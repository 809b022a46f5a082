#!/usr/bin/env bash
# Installs what is missing, builds, and runs all tests; ends with ctest's own closing lines.
# usage: scripts/test.sh [PRESET...]      default: release
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

presets=("$@")
((${#presets[@]} > 0)) || presets=(release)

for preset in "${presets[@]}"; do
  echo "test: $preset"
  TANSY_CMAKE_ARGS=-DTANSY_BUILD_TESTS=ON scripts/build.sh "$preset"
  ctest --preset "$preset" --parallel "$(nproc)" --schedule-random
done
