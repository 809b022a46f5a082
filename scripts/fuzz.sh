#!/usr/bin/env bash
# Installs clang if it is missing, builds the programs of tests/fuzz with libFuzzer, AddressSanitizer and
# UndefinedBehaviorSanitizer into build/fuzz, and runs each of them for a time.
# usage: scripts/fuzz.sh [--built] [--slice SECONDS] [SECONDS [TARGET...]]      default: 3600 seconds for each target
#
# TARGET is the name behind "Fuzz", such as ServerStream. With --built nothing is installed and built, and what is there
# is run. With --slice the targets take turns of so many seconds until each has had its time.
#
# Inputs that lead further are kept in build/fuzz/corpus/TARGET and are the start of the next run. Inputs that break
# something are kept in build/fuzz/findings, and the run goes on with the next target. Each turn is a line in
# build/fuzz/runs.log: when it ended, target, seed, executions, seconds by the clock and of the processor, and how many
# findings. A finding is run again with: build/fuzz/bin/FuzzTARGET FILE. Exit code 1: something was found.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

is_built=false
if [[ "${1:-}" == --built ]]; then
  is_built=true
  shift
fi
slice=0
if [[ "${1:-}" == --slice ]]; then
  slice=${2:?}
  shift 2
fi
seconds=${1:-3600}
[[ $slice$seconds =~ ^[0-9]+$ ]] || { echo "fuzz: give a number of seconds before the targets" >&2; exit 2; }
shift $(($# > 0 ? 1 : 0))
targets=("$@")
if ((${#targets[@]} == 0)); then
  for source in tests/fuzz/Fuzz*.cpp; do
    name=${source##*/Fuzz}
    targets+=("${name%.cpp}")
  done
fi
for target in "${targets[@]}"; do
  [[ -f tests/fuzz/Fuzz$target.cpp ]] || { echo "fuzz: there is no tests/fuzz/Fuzz$target.cpp" >&2; exit 2; }
done
((slice > 0 && slice < seconds)) || slice=$seconds

if ! $is_built; then
  scripts/dependencies.sh --fuzz
  TANSY_CMAKE_ARGS=-DTANSY_BUILD_TESTS=ON scripts/build.sh fuzz "${targets[@]/#/Fuzz}"
fi
root=$PWD
folder=$root/build/fuzz
mkdir -p "$folder/findings"
export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1 UBSAN_OPTIONS=print_stacktrace=1
TIMEFORMAT='%U %S'

run() { # TARGET SECONDS
  local target=$1 seed=$((RANDOM * 32768 + RANDOM + 1)) begin=$SECONDS work cpu result=0 executions before after
  local findings=$folder/findings/$target
  work=$folder/run/$target
  mkdir -p "$work" "$folder/corpus/$target"
  before=$(find "$folder/findings" -name "$target-*" | wc -l)
  cd "$work"
  cpu=$({ time "$folder/bin/Fuzz$target" -seed="$seed" -max_total_time="$2" -max_len=4096 -timeout=60 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$findings-" "$folder/corpus/$target" "$root/tests/fuzz/corpus/$target" \
    >"$work/output" 2>&1; } 2>&1) || result=$?
  cd "$root"
  executions=$(awk '/number_of_executed_units/ {print $2}' "$work/output")
  after=$(find "$folder/findings" -name "$target-*" | wc -l)
  if ((result != 0)); then
    cp "$work/output" "$findings-output-$seed"
    failed=1
  fi
  printf '%s %-14s seed=%s executions=%s seconds=%d cpu=%s findings=%d\n' "$(date -u +%FT%TZ)" "$target" "$seed" \
    "${executions:-0}" $((SECONDS - begin)) "$(awk '{printf "%.1f", $1 + $2}' <<<"$cpu")" $((after - before)) |
    tee -a "$folder/runs.log"
}

failed=0
for ((had = 0; had < seconds; had += slice)); do
  for target in "${targets[@]}"; do
    run "$target" "$slice"
  done
done
exit "$failed"
