#!/usr/bin/env bash
# Starts a private PostgreSQL, a private Ceph (a monitor and three OSDs, in memory) and tansyd on both, all on loopback
# and in a temporary folder, says what to try, and stops everything on Ctrl-C.
#
# usage: scripts/cluster-demo.sh [FOLDER_WITH_TANSYD]      default: build/bin
# Needs Debian's packages postgresql, ceph-mon, ceph-osd and ceph-common.
set -euo pipefail

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

start_tansyd() {
  local data=$folder/data
  begin tansyd "$programs/tansyd" --data "$data" --listen 127.0.0.1 --local-ip 127.0.0.1 \
    --object-port 19700 --object-https-port 0 --picture-port 19701 --picture-https-port 0 \
    --s3-port 19702 --s3-https-port 0 --database "$database" --storage "$storage"
  wait_for tansyd grep -q "tansyd ready" "$folder/tansyd.out"
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
start_tansyd
cat << END

Everything is in $folder. Try in another terminal:

  cd $folder && ln -sfn data tansy-data
  $programs/tansy mb photos
  $programs/tansy put FILE --name FILE
  psql -h $folder/postgres -U tansy tansy -c 'SELECT bucket_name, name, size FROM platform.local_object'
  rados -c $conf -p tansy ls
  ceph -c $conf status
  kill ${started[3]}                          # an OSD: reads and writes go on
  $programs/tansyd move --data $folder/data --database '$database' --storage '$storage' --to-database sqlite:rows.db --to-storage file:bytes

Ctrl-C stops everything and removes the folder.
END
wait "${started[-1]}" || true
echo "cluster-demo: tansyd has ended; see $folder" >&2
