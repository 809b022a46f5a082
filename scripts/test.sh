#!/usr/bin/env bash
# Installs what is missing, builds, and runs all tests; ends with ctest's own closing lines.
# usage: scripts/test.sh [PRESET...]      default: release
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

presets=("$@")
((${#presets[@]} > 0)) || presets=(release)
printed=$(mktemp)
trap 'rm -f "$printed"' EXIT

# Prints what the failed tests said once more, at most 60 lines of each, because of a long run people often see only the
# end.
show_failed_tests() {
  local log="$1/Testing/Temporary/LastTest.log"
  [[ -f $log ]] || return 0
  awk '
    /^Output:$/ { reading = 1; count = 0 }
    reading { lines[count++ % 60] = $0 }
    /^<end of output>$/ { reading = 0 }
    / Testing: / { name = $0 }
    /^Test [A-Z].*\.$/ && !/^Test (Passed|Skipped|Not Run)\.$/ {
      print "---- " name
      for (i = count > 60 ? count - 60 : 0; i < count; ++i) print lines[i % 60]
    }' "$log"
}

for preset in "${presets[@]}"; do
  echo "test: $preset"
  TANSY_CMAKE_ARGS=-DTANSY_BUILD_TESTS=ON scripts/build.sh "$preset"
  status=0
  if [[ $preset == windows ]]; then
    scripts/wine.sh --start
    trap 'rm -f "$printed"; scripts/wine.sh --stop' EXIT
  fi
  ctest --preset "$preset" --parallel "$(nproc)" --schedule-random | tee "$printed" || status=$?
  if ((status != 0)); then
    folder=build
    [[ $preset == release ]] || folder="build/$preset"
    show_failed_tests "$folder"
    sed -n '/ tests passed, /,$p' "$printed"
    exit "$status"
  fi
done
