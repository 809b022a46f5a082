#!/usr/bin/env bash
# Real programs under Wine: tansyd.exe is written to and read from by HTTP and HTTPS, killed in the middle, started again, and
# stopped. With a second folder, of this system's programs, each system's client also talks to the other's server.
# usage: programs.sh FOLDER_OF_WINDOWS_PROGRAMS [FOLDER_OF_PROGRAMS]
set -euo pipefail

windows=$1
linux=${2:-}
if [[ ! -x $linux/tansy || ! -x $linux/tansyd ]]; then
  echo "programs: without tansy and tansyd of this system: '$linux' has none"
  linux=
fi
wine=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../scripts" && pwd)/wine.sh
folder=$(mktemp -d)
server=
feeder=
finish() {
  [[ -z $server ]] || kill -KILL "$server" 2>/dev/null || true
  [[ -z $feeder ]] || kill "$feeder" 2>/dev/null || true
  rm -rf "$folder"
}
trap finish EXIT

fail() {
  echo "programs: $1" >&2
  tail -n 40 "$folder/out" >&2 || true
  exit 1
}

# start DATA PROGRAM...: starts a tansyd with free ports on a data folder, and waits until it is ready. Sets `data`, `port` and `ca`.
start() {
  data=$1
  shift
  ca=$data/META_INFO/SYS/runtime_script/maintain/DefaultCert/A-server.crt
  local try
  for try in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 10000))
    "$@" --data "$data" --listen 127.0.0.1 --object-port "$port" --picture-port $((port + 1)) --s3-port $((port + 2)) \
      --object-https-port $((port + 3)) --picture-https-port $((port + 4)) --s3-https-port $((port + 5)) \
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

stop() {
  kill -INT "$server"
  local code=0
  wait "$server" || code=$?
  server=
  ((code == 0)) || fail "tansyd ended with $code"
}

crash() {
  kill -KILL "$server"
  wait "$server" 2>/dev/null || true
  server=
}

# client PROGRAM...: the client is asked for HTTP, or for HTTPS with the certificate that tansyd has made.
over_http() {
  client=("$@" --data "$data")
}
over_https() {
  client=("$@" --data "$data" --server "https://127.0.0.1:$((port + 3))" --ca "$ca")
}

expect() {  # TEXT COMMAND...: what the command prints has the text in it
  local text=$1 printed
  shift
  printed=$("$@" 2>&1) || fail "$* failed: $printed"
  [[ $printed == *"$text"* ]] || fail "$* says '$printed', not '$text'"
}

same() {
  cmp "$1" "$2" || fail "$2 came back otherwise"
  rm "$2"
}

# round BUCKET: makes a bucket, writes a small and a large object, reads them back, and removes one.
round() {
  local bucket=$1 name
  expect "made $bucket" "${client[@]}" mb "$bucket"
  for name in small large; do
    expect "/$bucket/$name" "${client[@]}" put "$folder/$name" --pool "$bucket" --name "$name"
    expect "$(stat -c %s "$folder/$name")" "${client[@]}" stat "/$bucket/$name"
    expect back "${client[@]}" get "/$bucket/$name" "$folder/back"
    same "$folder/$name" "$folder/back"
    "${client[@]}" cat "/$bucket/$name" >"$folder/back" || fail "cat failed"
    same "$folder/$name" "$folder/back"
  done
  "${client[@]}" put - --pool "$bucket" --name piped <"$folder/large" >/dev/null || fail "put - failed"
  expect "removed /$bucket/piped" "${client[@]}" rm --bytes "/$bucket/piped"
  expect "$bucket" "${client[@]}" buckets
}

# trees BUCKET: a folder goes to the S3 door and comes back.
trees() {
  local bucket=$1
  expect "made $bucket" "${client[@]}" mb "$bucket"
  expect "s3://$bucket/tree/a b.txt" "${client[@]}" cp -r "$folder/tree" "s3://$bucket/tree/"
  expect "a b.txt" "${client[@]}" ls "$bucket/tree/"
  "${client[@]}" sync "s3://$bucket/tree" "$folder/copy" >/dev/null || fail "sync failed"
  diff -r "$folder/tree" "$folder/copy" || fail "the tree came back otherwise"
  rm -r "$folder/copy"
  expect removed "${client[@]}" rm -r "s3://$bucket"
  expect "removed $bucket" "${client[@]}" rb "$bucket"
}

# holds_first_part: an upload from standard input waits in the middle; its first part is below the data folder, and only there.
holds_first_part() {
  mkfifo "$folder/pipe"
  (
    cat "$folder/large"
    until [[ -e $folder/go-on ]]; do sleep 0.1; done
  ) >"$folder/pipe" &
  feeder=$!
  "${client[@]}" put - --pool waiting --name piped <"$folder/pipe" >/dev/null &
  local upload=$!
  until compgen -G "$data/localstoragetmp/*_*" >/dev/null; do
    kill -0 "$upload" 2>/dev/null || fail "the upload has ended"
    sleep 0.1
  done
  [[ ! -e $windows/localstoragetmp ]] || fail "first parts are beside the programs"
  touch "$folder/go-on"
  wait "$upload" || fail "the upload failed"
  wait "$feeder" || true
  feeder=
  rm "$folder/pipe" "$folder/go-on"
  "${client[@]}" cat /waiting/piped >"$folder/back" || fail "cat failed"
  same "$folder/large" "$folder/back"
}

head -c 5000 /dev/urandom >"$folder/small"
head -c 25000000 /dev/urandom >"$folder/large"
mkdir -p "$folder/tree/below"
cp "$folder/small" "$folder/tree/a b.txt"
head -c 9000000 "$folder/large" >"$folder/tree/below/größe"
here=(timeout 120 "$wine" "$windows/tansy.exe")

start "$folder/data" "$wine" "$windows/tansyd.exe"
echo "programs: tansyd.exe is ready"
over_http "${here[@]}"
round windows-http
trees windows-trees
expect "$(sed -n 's/^project(TansyCloudStorage VERSION \([0-9.]*\).*/\1/p' "$(dirname "$wine")/../CMakeLists.txt")" "${client[@]}" version
expect "certificate" "${client[@]}" doctor
over_https "${here[@]}"
round windows-https
echo "programs: tansy.exe, tansyd.exe: done"
expect "made waiting" "${client[@]}" mb waiting
holds_first_part
echo "programs: first parts wait below the data folder"
if [[ -n $linux ]]; then
  over_http "$linux/tansy"
  round linux-http
  trees linux-trees
  over_https "$linux/tansy"
  round linux-https
  echo "programs: tansy of this system, tansyd.exe: done"
fi

crash
touch "$folder/data/localstoragetmp/0123456789ABCDEF_1"
start "$folder/data" "$wine" "$windows/tansyd.exe"
[[ ! -e $folder/data/localstoragetmp/0123456789ABCDEF_1 ]] || fail "a first part of nobody is still there"
over_https "${here[@]}"
"${client[@]}" cat /windows-http/large >"$folder/back" || fail "cat failed"
same "$folder/large" "$folder/back"
echo "programs: what was written is there after a crash, with the same certificate"
stop
echo "programs: tansyd.exe stops when it is told"

if [[ -n $linux ]]; then
  start "$folder/linux-data" "$linux/tansyd"
  over_http "${here[@]}"
  round http
  trees trees
  over_https "${here[@]}"
  round https
  stop
  echo "programs: tansy.exe, tansyd of this system: done"
fi
