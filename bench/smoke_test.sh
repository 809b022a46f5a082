#!/usr/bin/env bash
# Looks whether the harness measures what it says: one row is measured as users would, and answers that are wrong, missing
# or refused make a run fail instead of printing a number.
# usage: smoke_test.sh BUILD_FOLDER        exit code 77: a tool is missing, nothing was tested
set -uo pipefail
build=$(cd "$1" && pwd) || exit 2
cd "$(dirname "${BASH_SOURCE[0]}")/.."

profile=false
PATH=$PATH:/usr/sbin # where Debian keeps nginx
for part in bench/lib/*.sh; do
  source "$part"
done
for tool in wrk nginx fio sqlite3 curl openssl; do
  command -v "$tool" >/dev/null || { echo "smoke: $tool is missing, so nothing was tested"; exit 77; }
done
[[ -d /dev/shm ]] || { echo "smoke: there is no /dev/shm, so nothing was tested"; exit 77; }

failures=0
complain() {
  echo "smoke: $1"
  failures=$((failures + 1))
}

disk=$(mktemp -d)
memory=$(mktemp -d /dev/shm/tansy-smoke-XXXXXX)
mkdir -p "$disk/servers" "$disk/requests"
tansy_load=$build/bin/tansy_load
tansyd=$build/bin/tansyd
export TANSY_ACCESS_KEY=bench TANSY_SECRET_KEY=bench-secret
trap 'stop_all_servers; rm -rf "$disk" "$memory"' EXIT

refuses() { # WHAT COMMAND...
  local what=$1
  shift
  "$@" >/dev/null 2>&1 && complain "$what is not noticed"
}
accepts() { # WHAT COMMAND...
  local what=$1
  shift
  "$@" >"$disk/record" 2>"$disk/errors" || { complain "$what fails"; cat "$disk/errors"; }
}

for contender in tansyd nginx; do
  use_server "$contender" memory fast || { complain "$contender does not start"; continue; }
  url=$(<"$server/url")
  accepts "storing on $contender" store_objects few 20 4096 4
  accepts "reading from $contender" measured wrk_load "$url" 4 1 "$(request_file GET few 1 20)" cycle
  for name in rate p50 p99 cpu peak; do
    grep -q " *$name=[0-9]" "$disk/record" || complain "the record of $contender has no $name"
  done
  accepts "reading by link from $contender" measured wrk_load "$url" 4 1 "$(request_file GET few 1 20 link)" cycle
  accepts "reading from $contender over HTTPS" load "$(<"$server/https_url")" "$(request_file GET few 1 20)" 2 4096 once
  grep -q 'errors=0 tls=TLSv1.3/' "$disk/record" || complain "$contender over HTTPS: $(cat "$disk/record")"
  refuses "an object that $contender does not have" measured wrk_load "$url" 4 1 "$(request_file GET few 1 40)" cycle
  refuses "a body of another size from $contender" check_bodies "$url" "$(request_file GET few 1 1)" 1 4095
  refuses "a list of requests that ends" measured wrk_load "$url" 4 1 "$(request_file GET few 1 20)" once
done

# A wrong byte in what nginx serves, behind its first bytes.
file=$(<"$server/data")/files/bench/few-000002
printf X | dd of="$file" bs=1 seek=3000 conv=notrunc status=none
refuses "a wrong byte" check_bodies "$url" "$(request_file GET few 1 20)" 1 4096

# A signature of another key.
use_server tansyd memory fast
TANSY_SECRET_KEY=another request_file GET few 1 5 >/dev/null
refuses "a refused signature" measured wrk_load "$(<"$server/url")" 4 1 "$disk/requests/GET-few-1-5-header" cycle

((failures == 0)) && echo "smoke: tansyd and nginx are measured, and wrong answers are noticed"
exit $((failures > 0))
