#!/usr/bin/env bash
# Measures tansyd beside nginx, fio, dd and curl on this machine, in turns, and prints one table of ratios.
#
# usage: bench/run.sh [--quick] [--profile] [--list] [--tansyd PROGRAM] [--against PROGRAM] [--runs N] [--folder DIR] [ROW...]
#
#   ROW               rows to measure, patterns like 'get-*' too; all of them when none is named. "micro" prints the
#                     microbenchmarks instead of the table, or behind it
#   --quick           fewer and shorter runs
#   --profile         print below each row where the processor time of both goes; the ratios do not count then
#   --list            print the rows with their goals, and end
#   --tansyd PROGRAM  measure this tansyd; nothing of it is built then
#   --against PROGRAM compare with this other tansyd instead: the ratio is the first one's divided by this one's
#   --runs N          pairs of runs of each row [5, with --quick 3]
#   --folder DIR      where the files of the rows "on the disk" lie [$TMPDIR, else /var/tmp]; those "in memory" lie in /dev/shm
#
# It installs wrk, nginx, fio and sqlite3 from Debian's packages, builds the release preset, and starts every server on
# loopback: tansyd with its default settings, nginx as its own users tune it. See docs/performance.md.
set -euo pipefail
started_in=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")/.."

quick=false
profile=false
runs=''
tansyd=''
against=''
folder=${TMPDIR:-/var/tmp}
wanted=()
action=measure
micro=false

usage() {
  sed -n '2,/^set -/{/^set -/d;s/^# \{0,1\}//;p}' "$PWD/bench/run.sh"
}

program() { # OPTION PATH
  local path
  path=$(cd "$started_in" && realpath -e -- "$2") && [[ -x $path ]] || { echo "bench: $1 $2 is no program" >&2; exit 2; }
  echo "$path"
}

while (($# > 0)); do
  case $1 in
    --quick) quick=true ;;
    --profile) profile=true ;;
    --list) action=list ;;
    --tansyd) tansyd=$(program "$1" "${2:?}"); shift ;;
    --against) against=$(program "$1" "${2:?}"); shift ;;
    --runs) runs=${2:?}; shift ;;
    --folder) folder=$(cd "$started_in" && cd "${2:?}" && pwd); shift ;;
    -h | --help) usage; exit 0 ;;
    -*) echo "bench: no such option: $1" >&2; usage >&2; exit 2 ;;
    micro) micro=true ;;
    *) wanted+=("$1") ;;
  esac
  shift
done

runs=${runs:-$($quick && echo 3 || echo 5)}
seconds=$($quick && echo 1 || echo 3)
[[ $runs =~ ^[1-9][0-9]*$ ]] || { echo "bench: --runs $runs is no number" >&2; exit 2; }

PATH=$PATH:/usr/sbin # where Debian keeps nginx
for part in bench/lib/*.sh bench/rows/{small,large,pictures,client,many,s3,rclone,cluster,gateway}.sh; do
  # shellcheck source=/dev/null
  source "$part"
done

if [[ $action == list ]]; then
  list_rows
  exit 0
fi

# The rows that the words of the command line name, in the order of the list.
chosen=()
choose_rows() {
  local name pattern found
  for pattern in "${wanted[@]}"; do
    found=false
    for name in "${row_names[@]}"; do
      # shellcheck disable=SC2053
      [[ $name != $pattern ]] || found=true
    done
    $found || { echo "bench: no such row: $pattern (see --list)" >&2; exit 2; }
  done
  for name in "${row_names[@]}"; do
    ((${#wanted[@]} > 0)) || { chosen+=("$name"); continue; }
    for pattern in "${wanted[@]}"; do
      # shellcheck disable=SC2053
      [[ $name != $pattern ]] || { chosen+=("$name"); break; }
    done
  done
}
$micro && ((${#wanted[@]} == 0)) || choose_rows

disk=$(mktemp -d "$folder/tansy-bench-XXXXXX")
memory=$(mktemp -d /dev/shm/tansy-bench-XXXXXX)
mkdir -p "$disk/servers" "$disk/requests" "$disk/results"
clean_up() {
  trap '' INT TERM # a second one must not leave anything behind
  stop_all_servers
  stop_services
  rm -rf "$disk" "$memory"
}
trap clean_up EXIT
trap 'exit 130' INT TERM

export TANSY_ACCESS_KEY=bench TANSY_SECRET_KEY=bench-secret
install_tools
if [[ -z $tansyd ]]; then
  tansyd=$PWD/build/bin/tansyd
  build_programs tansyd tansy tansy_load
else
  build_programs tansy_load
fi
! $micro || build_programs tansy_micro
tansy_load=$PWD/build/bin/tansy_load
tansy=$PWD/build/bin/tansy

echo "tansyd: $tansyd${against:+, against $against}"
echo "$(nproc) processors, $(awk '/MemTotal/ {printf "%.0f GiB", $2 / 1048576}' /proc/meminfo), Linux $(uname -r); disk: $(file_system "$disk") at $folder; nginx $(nginx -v 2>&1 | sed 's/.*\///')"
echo "medians of $runs pairs of runs of $seconds s$($quick && echo ' (--quick: fewer and shorter runs than the figures in docs/performance.md)' || true)"
echo
((${#chosen[@]} == 0)) || table_head
failures=0
for name in "${chosen[@]}"; do
  set +e
  (
    trap 'kill $(jobs -p) 2>/dev/null || true' EXIT
    set -e
    measure_row "$name"
  )
  status=$?
  set -e
  if ((status == 0)) && print_row "$name" && print_profile "$name"; then
    continue
  fi
  printf '%-22s FAILED\n' "$name"
  failures=$((failures + 1))
done
if $micro; then
  # Processor time counts here; on a busy machine it is less than the time that passes.
  build/bin/tansy_micro --benchmark_min_time="$($quick && echo 0.1 || echo 0.5)" 2>/dev/null || failures=$((failures + 1))
fi
((failures == 0)) || { echo "bench: $failures rows failed" >&2; exit 1; }
