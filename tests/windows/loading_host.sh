#!/usr/bin/env bash
# A program that was built without the module loads its DLL, serves, and stops, as the host of somebody else would.
# usage: loading_host.sh LOADING_HOST DLL TANSY
set -euo pipefail

program=$1 dll=$2 tansy=$3
wine=$(cd "$(dirname "${BASH_SOURCE[0]}")/../../scripts" && pwd)/wine.sh
folder=$(mktemp -d)
host=
finish() {
  [[ -z $host ]] || kill -KILL "$host" 2>/dev/null || true
  rm -rf "$folder"
}
trap finish EXIT

# The program and its compiler's libraries lie apart from the DLL.
cp "$program" "$(dirname "$dll")"/lib{stdc++-6,gcc_s_seh-1,winpthread-1}.dll "$folder"
cd "$folder"
head -c 3000 /dev/urandom >small
head -c 25000000 /dev/urandom >large
mkfifo input

run() {
  exec 3<>input
  "$wine" "$folder/$(basename "$program")" "$dll" "$port" $((port + 1)) example-key example-secret <input >out 2>err 3>&- &
  host=$!
  until grep -q ready out; do
    if ! kill -0 "$host" 2>/dev/null; then
      return 1
    fi
    sleep 0.1
  done
}

for try in 1 2 3 4 5; do
  rm -f catalogue.db*
  port=$((20000 + RANDOM % 10000))
  if run; then break; fi
  if ((try == 5)); then
    cat err >&2
    exit 1
  fi
done

export TANSY_SERVER=http://127.0.0.1:$port TANSY_ACCESS_KEY=example-key TANSY_SECRET_KEY=example-secret
for name in small large; do
  timeout 120 "$wine" "$tansy" put "$name" --pool memory --name "$name" >/dev/null
  timeout 120 "$wine" "$tansy" get "/memory/$name" back >/dev/null
  cmp "$name" back
  rm back
done

exec 3>&-  # the end of its input
code=0
wait "$host" || code=$?
host=
if ((code != 0)) || ! grep -q stopped out; then
  cat out err >&2
  echo "loading_host ended with $code" >&2
  exit 1
fi
echo "loading_host: served and stopped"
