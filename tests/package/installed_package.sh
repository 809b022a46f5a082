#!/usr/bin/env bash
# Installs the build into a fresh folder, builds the examples from there, and runs them against each other.
# usage: installed_package.sh BUILD_FOLDER SOURCE_FOLDER [CXX_FLAGS]
set -euo pipefail
build=$1 source=$2 flags=${3:-}

work=$(mktemp -d)
host_pid=
cleanup() {
  [[ -z "$host_pid" ]] || kill "$host_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

cmake --install "$build" --prefix "$work/installed" >/dev/null
cp -r "$source/examples" "$work/examples"
cmake -S "$work/examples" -B "$work/built" -DCMAKE_PREFIX_PATH="$work/installed" -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_FLAGS="$flags" >/dev/null
cmake --build "$work/built" --parallel >/dev/null

free_port() { # below the range of outgoing connections
  local port
  for _ in $(seq 50); do
    port=$((20000 + RANDOM % 10000))
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port"; return; }
  done
  return 1
}

mkdir "$work/run"
cd "$work/run"
port=$(free_port)
coproc HOST { exec "$work/built/embedded_host" "$port" "$(free_port)" example-key example-secret 2>"$work/host.err"; }
host_pid=$HOST_PID
read -r -t 60 -u "${HOST[0]}" ready || { cat "$work/host.err"; exit 1; }
[[ "$ready" == ready ]]

for size in 1000 12000000; do # one request, and parallel parts
  head -c "$size" /dev/urandom >"$work/file"
  "$work/built/client" "$port" memory example-key example-secret "$work/file" "$work/copy$size"
  cmp "$work/file" "$work/copy$size"
done

# The installed command line speaks to it too.
export TANSY_SERVER=http://127.0.0.1:$port TANSY_ACCESS_KEY=example-key TANSY_SECRET_KEY=example-secret
tansy=$work/installed/bin/tansy
url=$("$tansy" put "$work/file")
"$tansy" cat "$url" | cmp - "$work/file"
"$tansy" rm --bytes "$url" >/dev/null
[[ -s "$(find "$work/installed" -name tansy.1)" ]] || { echo "the manual page is not installed"; exit 1; }

exec {HOST[1]}>&-
wait "$host_pid"
host_pid=
echo "the installed package builds and serves the examples"
