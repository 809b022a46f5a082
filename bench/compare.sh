#!/usr/bin/env bash
# Measures tansyd beside nginx (its DAV module) in one run: the same load tool, cores and sizes, one server at a time, on
# loopback. Prints requests a second and their ratio. nginx does not wait for the disk, so writes are measured twice for
# tansyd: with --durability fast (the like-for-like row) and full (what users get unless they say otherwise). Everything is
# stored below TMPDIR; with TMPDIR=/dev/shm (in memory) the disk has no influence.
# usage: bench/compare.sh [SECONDS_PER_MEASUREMENT]       default 5
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

seconds=${1:-5}
connections=${CONNECTIONS:-32}
tansyd=$PWD/build/bin/tansyd
work=$(mktemp -d)
pids=()

cleanup() {
  local pid
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT

for tool in wrk nginx curl openssl; do
  command -v "$tool" >/dev/null || { echo "compare: $tool is missing (apt-get install wrk nginx-core curl openssl)" >&2; exit 1; }
done
[[ -x "$tansyd" ]] || { echo "compare: build first: scripts/build.sh" >&2; exit 1; }

export TANSY_ACCESS_KEY=bench TANSY_SECRET_KEY=bench-secret
object_port=19700
nginx_port=19800

# A signed link: the Base64 of what an Authorization header would hold, as the last query parameter.
signed_path() { # METHOD PATH
  local signature
  signature=$(printf '%s\n\n\n\n\n%s?b=1' "$1" "$2" |
    openssl dgst -sha1 -hmac "$TANSY_SECRET_KEY" -binary | openssl base64 -A)
  printf '%s?b=1&token=%s' "$2" "$(printf 'quorvane %s:%s' "$TANSY_ACCESS_KEY" "$signature" | openssl base64 -A)"
}

start_tansyd() { # DURABILITY
  rm -rf "$work/data"
  "$tansyd" --data "$work/data" --object-port $object_port --picture-port 19701 --object-https-port 0 \
    --picture-https-port 0 --durability "$1" --log-level 5 --log-file "$work/tansyd.log" >"$work/ready" &
  pids+=($!)
  for _ in $(seq 100); do
    grep -qs '^tansyd ready' "$work/ready" && break
    sleep 0.1
  done
  TANSY_SERVER=http://127.0.0.1:$object_port scripts/signed-curl.sh PUT /bench -sS --fail \
    --data '<CreateBucketConfiguration/>' >/dev/null
}

start_nginx() {
  mkdir -p "$work/nginx/files/bench" "$work/nginx/tmp"
  chmod -R 0777 "$work" "$work/nginx"
  cat >"$work/nginx.conf" <<CONF
worker_processes 2;
pid $work/nginx.pid;
error_log $work/nginx.err;
events { worker_connections 1024; }
http {
  access_log off; sendfile on; tcp_nopush on; keepalive_requests 1000000;
  client_body_temp_path $work/nginx/tmp; proxy_temp_path $work/nginx/tmp; fastcgi_temp_path $work/nginx/tmp;
  uwsgi_temp_path $work/nginx/tmp; scgi_temp_path $work/nginx/tmp;
  server {
    listen 127.0.0.1:$nginx_port; root $work/nginx/files; client_max_body_size 1g;
    location / { dav_methods PUT DELETE; create_full_put_path on; }
  }
}
CONF
  nginx -c "$work/nginx.conf" -g 'daemon off;' &
  pids+=($!)
  sleep 1
}

stop_last() {
  local pid=${pids[-1]}
  kill "$pid" && wait "$pid" 2>/dev/null || true
  unset 'pids[-1]'
}

load() { # URL [LUA] -> requests a second
  wrk -t2 -c"$connections" -d"${seconds}s" ${2:+-s "$2"} "$1" >"$work/wrk.out"
  if grep -q 'Non-2xx' "$work/wrk.out"; then
    echo "compare: not all answers were 2xx: $1" >&2
    exit 1
  fi
  awk '/Requests\/sec/ {print $2}' "$work/wrk.out"
}

# A script that writes each time under a new name: what overwriting one name costs says little, see docs/performance.md.
# It signs for tansyd; nginx does not look. The names of one measurement begin with PREFIX.
put_script() { # PREFIX BYTES
  cat >"$work/put.lua" <<LUA
local ffi = require("ffi")
ffi.cdef[[
  const void *EVP_sha1(void);
  unsigned char *HMAC(const void *md, const void *key, int key_size, const char *text, size_t text_size,
                      unsigned char *digest, unsigned int *digest_size);
  int EVP_EncodeBlock(char *text, const unsigned char *bytes, int size);
]]
local crypto = ffi.load("libcrypto.so.3")
local digest, text = ffi.new("unsigned char[20]"), ffi.new("char[32]")
local threads, written = 0, 0
local body, date = string.rep("x", $2), "Sat, 21 Nov 2026 08:00:00 GMT"

function setup(thread)
  threads = threads + 1
  thread:set("own", threads)
end

function request()
  written = written + 1
  local path = "/bench/$1-" .. own .. "-" .. written
  local signed = "PUT\n\n\n" .. date .. "\n\n" .. path
  crypto.HMAC(crypto.EVP_sha1(), "$TANSY_SECRET_KEY", ${#TANSY_SECRET_KEY}, signed, #signed, digest, nil)
  crypto.EVP_EncodeBlock(text, digest, 20)
  local headers = {Date = date, Authorization = "quorvane $TANSY_ACCESS_KEY:" .. ffi.string(text)}
  return wrk.format("PUT", path, headers, body)
end
LUA
  echo "$work/put.lua"
}

row() { # NAME OURS THEIRS
  awk -v n="$1" -v a="$2" -v b="$3" 'BEGIN {printf "%-34s %12.0f %12.0f %8.2f\n", n, a, b, a / b}'
}

declare -A theirs ours
sizes=(4096 1048576)

start_nginx
for size in "${sizes[@]}"; do
  head -c "$size" /dev/zero | tr '\0' x >"$work/nginx/files/bench/get$size"
  chmod 0666 "$work/nginx/files/bench/get$size"
  theirs[get$size]=$(load "http://127.0.0.1:$nginx_port/bench/get$size")
  theirs[put$size]=$(load "http://127.0.0.1:$nginx_port/" "$(put_script "n$size" "$size")")
done
stop_last

for durability in fast full; do
  start_tansyd "$durability"
  for size in "${sizes[@]}"; do
    if [[ "$durability" == fast ]]; then
      head -c "$size" /dev/zero | TANSY_SERVER=http://127.0.0.1:$object_port \
        scripts/signed-curl.sh PUT "/bench/get$size" -sS --fail --data-binary @- >/dev/null
      ours[get$size]=$(load "http://127.0.0.1:$object_port$(signed_path GET "/bench/get$size")")
    fi
    ours[put$size$durability]=$(load "http://127.0.0.1:$object_port/" "$(put_script "t$size" "$size")")
  done
  stop_last
done

printf '%-34s %12s %12s %8s\n' "requests a second" tansyd nginx ratio
for size in "${sizes[@]}"; do
  row "read $size bytes, signed" "${ours[get$size]}" "${theirs[get$size]}"
  row "write $size bytes, fast" "${ours[put${size}fast]}" "${theirs[put$size]}"
  row "write $size bytes, full" "${ours[put${size}full]}" "${theirs[put$size]}"
done
