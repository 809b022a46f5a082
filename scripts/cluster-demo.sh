#!/usr/bin/env bash
# Starts a private PostgreSQL, a private Ceph (a monitor and three OSDs, in memory) and three tansyd on both, all on
# loopback and in a temporary folder, says what to try, and stops everything on Ctrl-C.
#
# usage: scripts/cluster-demo.sh [--one] [FOLDER_WITH_TANSYD]      default: build/bin
# --one: a single tansyd without a name, which can be moved to another place.
# Needs Debian's packages postgresql, ceph-mon, ceph-osd and ceph-common.
set -euo pipefail

nodes=(a b c)
if [[ ${1:-} == --one ]]; then
  nodes=(a)
  shift
fi
programs=$(cd "${1:-$(dirname "$0")/../build/bin}" && pwd)
[[ -x $programs/tansyd ]] || { echo "cluster-demo: there is no tansyd in $programs: build it first" >&2; exit 1; }
# shellcheck source=scripts/private_services.sh
source "$(dirname "$0")/private_services.sh"
postgres_programs >/dev/null || exit 1
for tool in ceph-mon ceph-osd ceph ceph-authtool monmaptool uuidgen; do
  command -v "$tool" > /dev/null || { echo "cluster-demo: $tool is missing" >&2; exit 1; }
done

folder=$(mktemp -d "${TMPDIR:-/tmp}/tansy-demo-XXXXXX")
chmod 755 "$folder"
declare -a started=()

stop() {
  trap - EXIT
  trap '' INT TERM  # a second one must not leave anything behind
  echo "cluster-demo: stopping"
  local i
  for ((i = ${#started[@]} - 1; i >= 0; --i)); do
    kill "${started[i]}" 2> /dev/null || true
  done
  for ((i = ${#started[@]} - 1; i >= 0; --i)); do
    wait "${started[i]}" 2> /dev/null || true
  done
  rm -rf "$folder"
}
trap stop EXIT
trap 'exit 0' INT TERM

# Starts a program in the background, with its output in a file, out of reach of the terminal's Ctrl-C.
begin() {
  local log=$folder/$1.out
  shift
  setsid "$@" > "$log" 2>&1 < /dev/null &
  started+=($!)
}

# Waits until a command succeeds.
wait_for() {
  local what=$1 i
  shift
  for ((i = 0; i < 300; ++i)); do
    "$@" > /dev/null 2>&1 && return
    sleep 0.2
  done
  echo "cluster-demo: $what does not come up; see $folder" >&2
  trap - EXIT
  exit 1
}

# Starts the node of this name, on ports of its own. All nodes have the keys that the first one made.
start_node() {
  local name=$1 port=$2 data=$folder/$1/tansy-data
  local -a as_node=()
  mkdir -p "$data"
  if ((${#nodes[@]} > 1)); then as_node=(--node-name "$name"); fi
  if [[ $name != a ]]; then cp "$folder/a/tansy-data/tansyd.toml" "$data"; fi
  begin "node-$name" "$programs/tansyd" --data "$data" --listen 127.0.0.1 --local-ip 127.0.0.1 \
    --object-port "$port" --object-https-port 0 --picture-port $((port + 1)) --picture-https-port 0 \
    --s3-port $((port + 2)) --s3-https-port 0 --database "$database" --storage "$storage" "${as_node[@]}"
  wait_for "node $name" grep -q "tansyd ready" "$folder/node-$name.out"
}

say_what_to_try() {
  cat << END

Everything is in $folder. Try in another terminal:

  export PATH=$programs:\$PATH
  cd $folder/a && tansy mb photos && tansy put FILE --name FILE
  psql -h $folder/postgres -U tansy tansy -c 'SELECT bucket_name, name, size FROM platform.local_object'
  rados -c $conf -p tansy ls
  ceph -c $conf status
  kill ${started[3]}                          # an OSD: reads and writes go on
END
  if ((${#nodes[@]} > 1)); then
    cat << END

The nodes a, b and c listen on ports 19700, 19710 and 19720. Each has a folder, and what one stores the others have:

  cd $folder/b && tansy get /photos/FILE
  psql -h $folder/postgres -U tansy tansy -c 'SELECT name, owner, seen_at FROM platform.nodes'
  kill -9 ${started[-3]}                      # node a: b and c go on
  cd $folder/c && tansy put FILE --name another && cd $folder/b && tansy get /photos/another
END
  else
    cat << END
  tansyd move --data $folder/a/tansy-data --database '$database' --storage '$storage' --to-database sqlite:rows.db --to-storage file:bytes
END
  fi
  printf '\nCtrl-C stops everything and removes the folder.\n'
}

echo "cluster-demo: starting PostgreSQL"
start_private_postgres "$folder/postgres"
make_private_database "$folder/postgres" tansy
echo "cluster-demo: starting Ceph"
start_private_ceph "$folder/ceph" 16789
conf=$folder/ceph/ceph.conf
database=$(private_database_url "$folder/postgres" tansy)
storage="rados://tansy?conf=$conf&id=tansy"
echo "cluster-demo: starting tansyd"
port=19700
for node in "${nodes[@]}"; do
  start_node "$node" "$port"
  port=$((port + 10))
done
say_what_to_try
# Until all of them have ended: one that is killed to see what happens is not the end of the others.
for ((i = 1; i <= ${#nodes[@]}; ++i)); do
  wait "${started[-i]}" || true
done
echo "cluster-demo: no tansyd runs any more; see $folder" >&2
