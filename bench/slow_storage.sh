# What the measurements against a slow storage share: the host whose write callbacks sleep, and how it ends.
#
# To be sourced with these set: `name` of the script, `build` folder, `port`. Sets `work` (a folder that goes with the
# script) and `host`, the program; the script keeps the process id of a running host in `pid`.

host=$build/bin/slow_storage_host
[[ -x $host ]] || { echo "$name: build first: cmake -S . -B build -DTANSY_BUILD_BENCH=ON && cmake --build build" >&2; exit 1; }
work=$(mktemp -d)
pid=''
cleanup() {
  if [[ -n $pid ]]; then
    kill "$pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT
export TANSY_ACCESS_KEY=bench TANSY_SECRET_KEY=bench-secret TANSY_SERVER=http://127.0.0.1:$port

# Starts the host on a new catalogue, waits until it is ready and makes a bucket. The host ends when descriptor 3 is
# closed.
start_host() { # MILLISECONDS_PER_WRITE
  rm -f "$work"/catalogue.db* "$work/input" "$work/ready"
  mkfifo "$work/input"
  "$host" "$work/catalogue.db" "$port" "$1" <"$work/input" >"$work/ready" 2>"$work/log" &
  pid=$!
  exec 3>"$work/input"
  until grep -q ready "$work/ready"; do sleep 0.1; done
  scripts/signed-curl.sh PUT /bench --fail -o /dev/null --data '<CreateBucketConfiguration/>'
}
