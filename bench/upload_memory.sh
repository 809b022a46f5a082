#!/usr/bin/env bash
# Measures what an upload in progress costs in memory while the storage is slow: 1, 8 and 64 uploads at once against a
# host whose write callbacks sleep. Prints one row for each number and fails when an upload costs more than 24 MiB.
#
# usage: bench/upload_memory.sh [BUILD_FOLDER [MIB_PER_UPLOAD [MILLISECONDS_PER_WRITE]]]      default build 256 20
#
# Needs a build with -DTANSY_BUILD_BENCH=ON. The peak is the kernel's own (VmHWM of /proc/PID/status), reset before the
# uploads begin; what the process held before them is taken off.
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
mib=${2:-256}
write_ms=${3:-20}
cd "$(dirname "${BASH_SOURCE[0]}")/.."

limit_mib=24
port=${PORT:-19720}
name=upload_memory
. bench/slow_storage.sh

status_kib() { # FIELD
  awk -v field="$1:" '$1 == field {print $2}' "/proc/$pid/status"
}

upload() { # NUMBER
  scripts/signed-curl.sh PUT "/bench/upload$1" -T "$work/body" --fail -o /dev/null
}

measure() { # UPLOADS
  local uploads=$1 before peak started each clients=() client
  start_host "$write_ms"
  before=$(status_kib VmRSS)
  echo 5 >"/proc/$pid/clear_refs"
  started=$SECONDS
  for ((i = 0; i < uploads; i++)); do
    upload "$i" &
    clients+=($!)
  done
  for client in "${clients[@]}"; do
    wait "$client"
  done
  peak=$(status_kib VmHWM)
  each=$(awk -v p="$peak" -v b="$before" -v n="$uploads" 'BEGIN {printf "%.1f", (p - b) / 1024 / n}')
  printf '%8d %12.1f %12.1f %16s %10d\n' "$uploads" "$(awk "BEGIN {print $before / 1024}")" \
    "$(awk "BEGIN {print $peak / 1024}")" "$each" $((SECONDS - started))
  exec 3>&-
  wait "$pid"
  pid=''
  awk -v e="$each" -v l="$limit_mib" 'BEGIN {exit !(e <= l)}' ||
    { echo "upload_memory: more than $limit_mib MiB for each of $uploads uploads" >&2; exit 1; }
}

truncate -s "${mib}M" "$work/body"
echo "uploads of $mib MiB, $write_ms ms for each write of the storage; memory in MiB"
printf '%8s %12s %12s %16s %10s\n' uploads before peak 'for each upload' seconds
for uploads in 1 8 64; do
  measure "$uploads"
done
