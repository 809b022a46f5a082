#!/usr/bin/env bash
# Measures how long small requests take while large uploads wait for a slow storage: twelve uploads against a host whose
# write callbacks sleep 300 ms, and beside them one GET after another. Prints the times of the GETs without uploads and
# with them, and fails when one of a hundred takes 50 ms or more.
#
# usage: bench/slow_uploads.sh [BUILD_FOLDER [UPLOADS [MILLISECONDS_PER_WRITE [GETS]]]]      default build 12 300 300
#
# Needs a build with -DTANSY_BUILD_BENCH=ON. The times are curl's own, connection included.
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
uploads=${2:-12}
write_ms=${3:-300}
gets=${4:-300}
cd "$(dirname "${BASH_SOURCE[0]}")/.."

limit_ms=50
port=${PORT:-19721}
name=slow_uploads
. bench/slow_storage.sh

# Prints the median, the 99th of a hundred and the longest time, in milliseconds.
time_gets() {
  for ((i = 0; i < gets; i++)); do
    scripts/signed-curl.sh GET '/bench/small?metadata' --fail -o /dev/null -w '%{time_total}\n'
  done | sort -n | awk '{t[NR] = $1 * 1000} END {printf "%.1f %.1f %.1f\n", t[int((NR + 1) / 2)], t[int(NR * 0.99)], t[NR]}'
}

start_host "$write_ms"
scripts/signed-curl.sh PUT /bench/small --fail -o /dev/null --data x

printf '%-24s %10s %10s %10s\n' 'GETs, ms' median 'p99' longest
printf '%-24s %10s %10s %10s\n' alone $(time_gets)
truncate -s 1G "$work/body"
clients=()
for ((i = 0; i < uploads; i++)); do
  scripts/signed-curl.sh PUT "/bench/upload$i" -T "$work/body" -o /dev/null 2>/dev/null &
  clients+=($!)
done
sleep 2 # until all of them have a piece with the storage or waiting for it
beside=$(time_gets)
printf '%-24s %10s %10s %10s\n' "beside $uploads uploads" $beside
for client in "${clients[@]}"; do
  kill -0 "$client" 2>/dev/null || { echo "slow_uploads: an upload ended too soon" >&2; exit 1; }
  kill "$client"
done
awk -v p99="$(cut -d' ' -f2 <<<"$beside")" -v l="$limit_ms" 'BEGIN {exit !(p99 < l)}' ||
  { echo "slow_uploads: p99 is not below $limit_ms ms" >&2; exit 1; }
