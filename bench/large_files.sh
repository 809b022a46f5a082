#!/usr/bin/env bash
# Large bodies through a real tansyd, compared byte for byte:
#   1. an object of 4 GiB - 1 byte, the largest there is: one PUT, one GET, a restart, another GET;
#   2. twenty clients at once, each with a file of its own of 256 MiB, up and down, over HTTP and then over HTTPS.
# Prints times, throughput and the peak memory of tansyd, and fails when a byte differs or memory exceeds its bound.
#
# usage: bench/large_files.sh [BUILD_FOLDER [FOLDER_FOR_FILES]]      default build, a folder below $TMPDIR
#
# Takes 13 GB of disk at the most, and some minutes.
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
base=$(cd "${2:-${TMPDIR:-/tmp}}" && pwd)
cd "$(dirname "${BASH_SOURCE[0]}")/.."

clients=${CLIENTS:-20}
client_mib=${CLIENT_MIB:-256}
# A chunk for each download and three pieces for each upload, with room for threads, TLS and the allocator.
bound_mib=$((64 + clients * 24))
http_port=${PORT:-19730}
https_port=$((http_port + 1))
tansyd=$build/bin/tansyd
work=$(mktemp -d "$base/tansy-large-XXXXXX")
pid=''
cleanup() {
  if [[ -n $pid ]]; then
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
[[ -x $tansyd ]] || { echo "large_files: build first: scripts/build.sh" >&2; exit 1; }
export TANSY_ACCESS_KEY=bench TANSY_SECRET_KEY=bench-secret

fail() {
  echo "large_files: $1" >&2
  exit 1
}

start() {
  "$tansyd" --data "$work/data" --object-port "$http_port" --object-https-port "$https_port" \
    --picture-port $((http_port + 2)) --picture-https-port 0 --s3-port 0 --s3-https-port 0 --log-level 5 --log-file "$work/tansyd.log" >"$work/ready" &
  pid=$!
  for _ in $(seq 300); do
    grep -q '^tansyd ready' "$work/ready" && return
    sleep 0.1
  done
  fail "tansyd does not start"
}

stop() {
  kill "$pid"
  wait "$pid"
  pid=''
}

request() { # METHOD PATH [curl options]
  scripts/signed-curl.sh "$@" --fail --insecure
}

# Bytes that repeat nowhere, as fast as the processor encrypts, and the same for the same number.
content() { # NUMBER BYTES
  head -c "$2" /dev/zero | openssl enc -aes-128-ctr -nosalt -K "$(printf '%032x' "$1")" -iv "$(printf '%032x' 0)"
}

peak_mib() {
  awk '$1 == "VmHWM:" {printf "%d", $2 / 1024}' "/proc/$pid/status"
}

now() { date +%s.%N; }
row() { # WHAT BYTES STARTED
  awk -v what="$1" -v bytes="$2" -v s="$3" -v e="$(now)" -v peak="$(peak_mib)" \
    'BEGIN {printf "%-44s %8.1f s %8.0f MiB/s   peak memory %d MiB\n", what, e - s, bytes / 1048576 / (e - s), peak}'
}

same() { # PATH FILE
  request GET "$1" -o - | cmp - "$2" || fail "$1 came back different"
}

largest=4294967295
content 0 "$largest" >"$work/largest"
start
TANSY_SERVER=http://127.0.0.1:$http_port
export TANSY_SERVER
request PUT /bench -o /dev/null --data '<CreateBucketConfiguration/>'
begin=$(now); request PUT /bench/largest -T "$work/largest" -o /dev/null; row "PUT of 4 GiB - 1 byte" "$largest" "$begin"
begin=$(now); same /bench/largest "$work/largest"; row "GET of 4 GiB - 1 byte" "$largest" "$begin"
stop
start
size=$(request GET '/bench/largest?metadata' -D - -o /dev/null | tr -d '\r' | awk '$1 == "Object-Size:" {print $2}')
[[ $size == "$largest" ]] || fail "the size after a restart is $size"
begin=$(now); same /bench/largest "$work/largest"; row "GET of 4 GiB - 1 byte after a restart" "$largest" "$begin"
request DELETE '/bench/largest?deletefile' -o /dev/null
rm "$work/largest"

bytes=$((client_mib * 1048576))
for ((i = 1; i <= clients; i++)); do
  content "$i" "$bytes" >"$work/file$i"
done

everyone() { # FUNCTION
  local pids=() one
  for ((i = 1; i <= clients; i++)); do
    "$1" "$i" &
    pids+=($!)
  done
  for one in "${pids[@]}"; do
    wait "$one" || fail "a client failed"
  done
}
put_one() { request PUT "/bench/file$1" -T "$work/file$1" -o /dev/null; }
get_one() { same "/bench/file$1" "$work/file$1"; }
remove_one() { request DELETE "/bench/file$1?deletefile" -o /dev/null; }

for scheme in http https; do
  stop
  start
  TANSY_SERVER=http://127.0.0.1:$http_port
  [[ $scheme == http ]] || TANSY_SERVER=https://127.0.0.1:$https_port
  begin=$(now); everyone put_one; row "$clients PUTs of $client_mib MiB at once, $scheme" $((clients * bytes)) "$begin"
  begin=$(now); everyone get_one; row "$clients GETs of $client_mib MiB at once, $scheme" $((clients * bytes)) "$begin"
  (($(peak_mib) <= bound_mib)) || fail "memory exceeds $bound_mib MiB"
  everyone remove_one
done
stop
