# A private PostgreSQL, a private Ceph and Ceph's own gateway, for the rows about them. Each is started when a row first needs
# it, and runs to the end. $disk/services holds their folders and the files NAME.pid.

# Far more than the rows store, since the OSDs keep everything in memory.
private_osd_bytes=8589934592
# shellcheck source=scripts/private_services.sh
source scripts/private_services.sh

begin() { # NAME COMMAND...
  setsid "${@:2}" >"$disk/services/$1.out" 2>&1 </dev/null &
  echo $! >"$disk/services/$1.pid"
  disown
}

wait_for() { # WHAT COMMAND...
  for _ in {1..300}; do
    ! "${@:2}" >/dev/null 2>&1 || return 0
    sleep 0.2
  done
  tail -n 5 "$disk"/services/*.out >&2
  fail "$1 does not start"
}

# Starts a service unless it runs.
use_service() { # NAME COMMAND...
  [[ ! -e $disk/services/$1.ready ]] || return 0
  mkdir -p "$disk/services"
  chmod 711 "$disk" "$disk/services" # PostgreSQL runs as a user of its own
  "${@:2}" || { fail "$1 does not start"; return 1; }
  touch "$disk/services/$1.ready"
}

use_postgres() {
  use_service postgres start_private_postgres "$disk/services/postgres"
}

use_ceph() {
  use_service ceph start_private_ceph "$disk/services/ceph" "$(free_ports)"
}

# Nothing of theirs is kept, so they need not end in order.
stop_services() {
  local each signal
  for each in "$disk"/services/*.pid; do
    signal=KILL
    [[ $each != */postgres.pid ]] || signal=QUIT # which ends the processes that it has started
    [[ ! -e $each ]] || kill "-$signal" "$(<"$each")" 2>/dev/null || true
  done
  for _ in {1..100}; do
    [[ -e $disk/services/postgres.pid ]] && kill -0 "$(<"$disk/services/postgres.pid")" 2>/dev/null || break
    sleep 0.1
  done
}

# Sets $backend to the options of a tansyd whose rows are in a database of its own or whose bytes are in a namespace of its own.
choose_backend() { # PLACE
  local name=bench_${EPOCHREALTIME//[!0-9]/}
  backend=()
  if [[ $1 == postgres* ]]; then
    use_postgres
    make_private_database "$disk/services/postgres" "$name"
    backend+=(--database "$(private_database_url "$disk/services/postgres" "$name")")
  fi
  if [[ $1 == *rados ]]; then
    use_ceph
    backend+=(--storage "rados://tansy?conf=$disk/services/ceph/ceph.conf&id=tansy&namespace=$name")
  fi
}

# Several tansyd that serve one database and one pool. Sets $nodes to their folders. They are stopped by "stop_tagged nodesCOUNT".
use_nodes() { # COUNT
  local i data
  nodes=()
  for ((i = 1; i <= $1; i++)); do
    server=$disk/servers/node$i-nodes$1
    nodes+=("$server")
    [[ ! -e $server/url ]] || continue
    data=$disk/data-$(basename "$server")
    rm -rf "$server" "$data" # another row's nodes had another database
    mkdir -p "$server" "$data"
    echo "$data" >"$server/data"
    ((i > 1)) || choose_backend postgres-rados
    ((i == 1)) || touch "$data/bucket-made" # by the first
    start_tansyd "$tansyd" "$data" full "${backend[@]}" --node-name "node$i"
  done
}

# Ceph's gateway with its own settings, and its objects in the same pool.
start_gateway() {
  local folder=$disk/services/ceph port admin=(radosgw-admin -c "$disk/services/ceph/ceph.conf")
  use_ceph
  port=$(free_ports)
  "${admin[@]}" user create --uid=bench --display-name=bench --access-key="$TANSY_ACCESS_KEY" \
    --secret-key="$TANSY_SECRET_KEY" >"$server/user"
  "${admin[@]}" zone placement modify --rgw-zone=default --placement-id=default-placement --data-pool=tansy >"$server/zone"
  radosgw -f -c "$folder/ceph.conf" -n client.admin --rgw_data="$server" --log_file="$server/log" \
    --rgw_frontends="beast endpoint=127.0.0.1:$port" >"$server/out" 2>&1 </dev/null &
  echo $! >"$server/pid"
  disown
  wait_for 'the gateway' curl --silent "http://127.0.0.1:$port"
  echo "http://127.0.0.1:$port" >"$server/s3_url"
  load "http://127.0.0.1:$port" "$(s3_signed bucket <<<'PUT /bench')" 1 0 >/dev/null
  cp "$server/s3_url" "$server/url"
}
