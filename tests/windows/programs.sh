#!/usr/bin/env bash
# A real tansyd.exe under Wine: it is written to and read from, killed in the middle, started again, and stopped. With a second
# folder, of this system's programs, each system's client also talks to the other's server.
# usage: programs.sh FOLDER_OF_WINDOWS_PROGRAMS [FOLDER_OF_PROGRAMS]
set -euo pipefail

windows=$1
linux=${2:-}
if [[ ! -x $linux/tansy ]]; then
  echo "programs: without a tansy of this system: '$linux' has none"
  linux=
fi
wine=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../scripts" && pwd)/wine.sh
folder=$(mktemp -d)
server=
finish() {
  [[ -z $server ]] || kill -KILL "$server" 2>/dev/null || true
  rm -rf "$folder"
}
trap finish EXIT

fail() {
  echo "programs: $1" >&2
  cat "$folder/out" >&2 || true
  exit 1
}

# start PROGRAM...: starts a tansyd with free ports on the data folder $folder/data, and waits until it is ready.
# HTTPS is left out: the module looks for its certificate beside tansyd.exe, where tansyd does not put it.
start() {
  local try port
  for try in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 10000))
    "$@" --listen 127.0.0.1 --object-port "$port" --object-https-port 0 --picture-port $((port + 2)) \
      --picture-https-port 0 --s3-port $((port + 4)) --s3-https-port 0 \
      </dev/null >"$folder/out" 2>&1 &
    server=$!
    while ! grep -q 'tansyd ready' "$folder/out"; do
      if ! kill -0 "$server" 2>/dev/null; then
        grep -q 'in use' "$folder/out" && continue 2
        fail "tansyd has ended"
      fi
      sleep 0.1
    done
    return
  done
  fail "no port is free"
}

# round CLIENT...: makes a bucket, writes a small and a large object, and reads them back.
round() {
  local bucket=$1
  shift
  "$@" mb "$bucket" >/dev/null
  for name in small large; do
    "$@" put "$folder/$name" --pool "$bucket" --name "$name" >/dev/null
    "$@" get "/$bucket/$name" "$folder/back" >/dev/null
    cmp "$folder/$name" "$folder/back" || fail "$bucket/$name came back otherwise"
    rm "$folder/back"
  done
}

stop() {
  kill -INT "$server"
  local code=0
  wait "$server" || code=$?
  server=
  ((code == 0)) || fail "tansyd ended with $code"
}

head -c 5000 /dev/urandom >"$folder/small"
head -c 25000000 /dev/urandom >"$folder/large"

start "$wine" "$windows/tansyd.exe" --data "$folder/data"
echo "programs: tansyd.exe is ready"
if [[ -n $linux ]]; then
  round from-linux "$linux/tansy" --data "$folder/data"
  echo "programs: tansy of this system, tansyd.exe: done"
fi
if [[ -e $windows/tansy.exe ]]; then
  round from-windows "$wine" "$windows/tansy.exe" --data "$folder/data"
  echo "programs: tansy.exe, tansyd.exe: done"
fi
kill -KILL "$server"
wait "$server" 2>/dev/null || true
start "$wine" "$windows/tansyd.exe" --data "$folder/data"
if [[ -n $linux ]]; then
  "$linux/tansy" --data "$folder/data" get /from-linux/large "$folder/back" >/dev/null
  cmp "$folder/large" "$folder/back"
fi
echo "programs: what was written is there after a crash"
stop
echo "programs: tansyd.exe stops when it is told"
