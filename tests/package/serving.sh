# What the tests of packages share: an installed tansyd that serves. Source it.

fail() {
  echo "package: $1" >&2
  exit 1
}

tansyd_pid=

stop_tansyd() {
  [[ -n "$tansyd_pid" ]] || return 0
  kill "$tansyd_pid" 2>/dev/null || true
  wait "$tansyd_pid" || true
  tansyd_pid=
}

free_port() { # below the range of outgoing connections
  local port
  for _ in $(seq 50); do
    port=$((20000 + RANDOM % 10000))
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null || { echo "$port"; return; }
  done
  return 1
}

# The value of a key in the settings file.
key_of() {
  sed -n "s/^$2 = \"\(.*\)\"\$/\1/p" "$1"
}

expect_private_keys() { # SETTINGS
  [[ $(stat -c %a "$1") == 600 ]] || fail "others can read the keys"
  [[ $(key_of "$1" access_key) =~ ^[A-Za-z0-9]{20}$ && $(key_of "$1" secret_key) =~ ^[A-Za-z0-9]{40}$ ]] ||
    fail "there are no keys"
}

# Starts the tansyd below a folder as its unit does, but for the ports, and waits until it says that it is ready.
start_tansyd() { # ROOT SETTINGS
  object_port=$(free_port)
  s3_port=$(free_port)
  mkfifo "$work/ready"
  "$1/usr/bin/tansyd" --data "$1/var/lib/tansyd" --config "$2" --listen 127.0.0.1 --local-ip 127.0.0.1 \
    --object-port "$object_port" --s3-port "$s3_port" --picture-port "$(free_port)" --object-https-port 0 --s3-https-port 0 \
    --picture-https-port 0 --admin-port 0 >"$work/ready" 2>"$work/tansyd.log" &
  tansyd_pid=$!
  local line=
  read -r -t 60 line <"$work/ready" || true
  rm "$work/ready"
  [[ $line == "tansyd ready:"* ]] || fail "tansyd did not start: $(cat "$work/tansyd.log")"
}

own_tansy() { # ROOT SETTINGS ARGUMENT...
  local root=$1 settings=$2
  shift 2
  TANSY_SERVER=http://127.0.0.1:$object_port TANSY_ACCESS_KEY=$(key_of "$settings" access_key) \
    TANSY_SECRET_KEY=$(key_of "$settings" secret_key) "$root/usr/bin/tansy" "$@"
}

store_and_read() { # ROOT SETTINGS
  head -c 3000000 /dev/urandom >"$work/file"
  own_tansy "$1" "$2" mb photos >/dev/null
  url=$(own_tansy "$1" "$2" put "$work/file")
  read_again "$1" "$2"
}

read_again() { # ROOT SETTINGS
  own_tansy "$1" "$2" cat "$url" | cmp - "$work/file" || fail "what was stored did not come back"
}
