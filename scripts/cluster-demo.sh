#!/usr/bin/env bash
# Starts a private PostgreSQL, a private Ceph (a monitor and three OSDs, in memory) and tansyd on both, all on loopback
# and in a temporary folder, says what to try, and stops everything on Ctrl-C.
#
# usage: scripts/cluster-demo.sh [FOLDER_WITH_TANSYD]      default: build/bin
# Needs Debian's packages postgresql, ceph-mon, ceph-osd and ceph-common.
set -euo pipefail

programs=$(cd "${1:-$(dirname "$0")/../build/bin}" && pwd)
[[ -x $programs/tansyd ]] || { echo "cluster-demo: there is no tansyd in $programs: build it first" >&2; exit 1; }
postgres=$(find /usr/lib/postgresql -maxdepth 3 -name initdb 2>/dev/null | sort -V | tail -1)
[[ -n $postgres ]] || { echo "cluster-demo: install the package postgresql" >&2; exit 1; }
postgres=$(dirname "$postgres")
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

# PostgreSQL refuses to run as root.
as_user() { if [[ $(id -u) == 0 ]]; then setpriv --reuid=postgres --regid=postgres --clear-groups "$@"; else "$@"; fi; }

start_postgres() {
  local data=$folder/postgres/data
  mkdir "$folder/postgres"
  if [[ $(id -u) == 0 ]]; then chown postgres "$folder/postgres"; fi
  as_user "$postgres/initdb" -D "$data" -U postgres -A trust -E SQL_ASCII --locale=C > "$folder/initdb.out"
  if [[ $(id -u) == 0 ]]; then
    begin postgres setpriv --reuid=postgres --regid=postgres --clear-groups "$postgres/postgres" -D "$data" \
      -c listen_addresses= -c "unix_socket_directories=$folder/postgres"
  else
    begin postgres "$postgres/postgres" -D "$data" -c listen_addresses= -c "unix_socket_directories=$folder/postgres"
  fi
  wait_for PostgreSQL psql -h "$folder/postgres" -U postgres -c "SELECT 1"
  psql -q -h "$folder/postgres" -U postgres -c "CREATE ROLE tansy LOGIN"
  psql -q -h "$folder/postgres" -U postgres -c "CREATE DATABASE tansy OWNER tansy"
}

ceph_admin() { ceph -c "$conf" --connect-timeout 10 "$@"; }

start_ceph() {
  local dir=$folder/ceph id key osd port=16789
  mkdir "$dir"
  conf=$dir/ceph.conf
  id=$(uuidgen)
  key=$(ceph-authtool --gen-print-key)
  {
    printf '[mon.]\nkey = %s\ncaps mon = "allow *"\n' "$key"
    printf '[client.admin]\nkey = %s\ncaps mon = "allow *"\ncaps osd = "allow *"\n' "$key"
    printf '[client.tansy]\nkey = %s\ncaps mon = "allow r"\ncaps osd = "allow rwx pool=tansy"\n' "$key"
    for osd in 0 1 2; do
      printf '[osd.%s]\nkey = %s\ncaps mon = "allow profile osd"\ncaps osd = "allow *"\n' "$osd" "$key"
    done
  } > "$dir/keyring"
  cat > "$conf" << END
[global]
fsid = $id
mon_host = v2:127.0.0.1:$port
mon_initial_members = a
public_network = 127.0.0.0/8
ms_bind_ipv6 = false
keyring = $dir/keyring
run_dir = $dir
log_file = $dir/\$name.log
admin_socket =
crash_dir = $dir
mon_cluster_log_file = $dir/cluster.log
auth_allow_insecure_global_id_reclaim = false
osd_pool_default_size = 2
osd_pool_default_min_size = 1
osd_crush_chooseleaf_type = 0
osd_pool_default_pg_autoscale_mode = off
osd_crush_initial_weight = 1
mon_data_avail_warn = 1
mon_data_avail_crit = 1
osd_objectstore = memstore
memstore_device_bytes = 1073741824
osd_memory_target = 134217728
[mon.a]
mon_data = $dir/mon
[osd]
osd_data = $dir/\$name
[client]
log_file =
END
  monmaptool --create --addv a "[v2:127.0.0.1:$port]" --fsid "$id" "$dir/monmap" > /dev/null
  ceph-mon -c "$conf" -i a --mkfs --monmap "$dir/monmap" --keyring "$dir/keyring"
  begin mon ceph-mon -f -c "$conf" -i a
  wait_for "the monitor" ceph_admin status
  for osd in 0 1 2; do
    local osd_id
    osd_id=$(uuidgen)
    mkdir "$dir/osd.$osd"
    ceph_admin osd new "$osd_id" "$osd" > /dev/null
    ceph-osd -c "$conf" -i "$osd" --mkfs --osd-uuid "$osd_id" --keyring "$dir/keyring" > "$folder/mkfs.$osd.out" 2>&1
    begin "osd.$osd" ceph-osd -f -c "$conf" -i "$osd"
  done
  wait_for "the OSDs" bash -c "ceph -c '$conf' osd stat | grep -q '3 up'"
  ceph_admin osd pool create tansy 8 8 > /dev/null 2>&1
}

start_tansyd() {
  local data=$folder/data
  begin tansyd "$programs/tansyd" --data "$data" --listen 127.0.0.1 --local-ip 127.0.0.1 \
    --object-port 19700 --object-https-port 0 --picture-port 19701 --picture-https-port 0 \
    --s3-port 19702 --s3-https-port 0 --database "$database" --storage "$storage"
  wait_for tansyd grep -q "tansyd ready" "$folder/tansyd.out"
}

echo "cluster-demo: starting PostgreSQL"
start_postgres
echo "cluster-demo: starting Ceph"
start_ceph
database=postgresql://tansy@${folder//\//%2F}%2Fpostgres/tansy
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
