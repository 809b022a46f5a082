# Starts a private PostgreSQL and a private Ceph (a monitor and three OSDs that keep everything in memory) for demonstrations
# and measurements: in a folder, on loopback, with Debian's programs. Read by other scripts, which bring
#   begin NAME COMMAND...    starts a program in the background
#   wait_for WHAT COMMAND... waits until a command succeeds, and fails when it does not for long

# The folder of PostgreSQL's programs; fails when there is none.
postgres_programs() {
  local initdb
  initdb=$(find /usr/lib/postgresql -maxdepth 3 -name initdb 2>/dev/null | sort -V | tail -1)
  [[ -n $initdb ]] || { echo "install the package postgresql" >&2; return 1; }
  dirname "$initdb"
}

# PostgreSQL refuses to run as root, so its user must be able to reach the folder.
as_postgres_user() {
  if ((EUID == 0)); then
    setpriv --reuid=postgres --regid=postgres --clear-groups "$@"
  else
    "$@"
  fi
}

# With PostgreSQL's own settings, behind a Unix socket in the folder. Its user "tansy" has no rights but to its databases.
start_private_postgres() { # FOLDER [OPTION...]
  local folder=$1 programs as_user=()
  shift
  programs=$(postgres_programs) || return 1
  mkdir "$folder"
  if ((EUID == 0)); then
    chown postgres "$folder"
    as_user=(setpriv --reuid=postgres --regid=postgres --clear-groups)
  fi
  as_postgres_user "$programs/initdb" -D "$folder/data" -U postgres -A trust -E SQL_ASCII --locale=C >"$folder.initdb"
  begin postgres "${as_user[@]}" "$programs/postgres" -D "$folder/data" -c listen_addresses= \
    -c "unix_socket_directories=$folder" "$@"
  wait_for PostgreSQL psql -h "$folder" -U postgres -c 'SELECT 1'
  psql -q -h "$folder" -U postgres -c 'CREATE ROLE tansy LOGIN'
}

# An empty database that belongs to the user "tansy".
make_private_database() { # FOLDER NAME
  psql -q -h "$1" -U postgres -c "CREATE DATABASE $2 OWNER tansy"
}

# Its address as an option of tansyd.
private_database_url() { # FOLDER NAME
  echo "postgresql://tansy@${1//\//%2F}/$2"
}

# The settings file is FOLDER/ceph.conf. The pool "tansy" has two replicas; the user "client.tansy" may use it.
start_private_ceph() { # FOLDER PORT
  local folder=$1 osd
  mkdir "$folder"
  write_ceph_settings "$folder" "$2" "$(uuidgen)" "$(ceph-authtool --gen-print-key)"
  ceph-mon -c "$folder/ceph.conf" -i a --mkfs --monmap "$folder/monmap" --keyring "$folder/keyring"
  begin mon ceph-mon -f -c "$folder/ceph.conf" -i a
  wait_for 'the monitor' private_ceph "$folder" status
  for osd in 0 1 2; do
    start_private_osd "$folder" "$osd"
  done
  wait_for 'the OSDs' ceph_has_osds "$folder" 3
  private_ceph "$folder" osd pool create tansy 8 8 >/dev/null 2>&1
}

private_ceph() { # FOLDER ARGUMENT...
  ceph -c "$1/ceph.conf" --connect-timeout 10 "${@:2}"
}

ceph_has_osds() { # FOLDER COUNT
  private_ceph "$1" osd stat | grep -q "$2 up"
}

start_private_osd() { # FOLDER NUMBER
  local id
  id=$(uuidgen)
  mkdir "$1/osd.$2"
  private_ceph "$1" osd new "$id" "$2" >/dev/null
  ceph-osd -c "$1/ceph.conf" -i "$2" --mkfs --osd-uuid "$id" --keyring "$1/keyring" >"$1/mkfs.$2" 2>&1
  begin "osd.$2" ceph-osd -f -c "$1/ceph.conf" -i "$2"
}

write_ceph_settings() { # FOLDER PORT ID KEY
  local osd
  {
    printf '[mon.]\nkey = %s\ncaps mon = "allow *"\n' "$4"
    printf '[client.admin]\nkey = %s\ncaps mon = "allow *"\ncaps osd = "allow *"\n' "$4"
    printf '[client.tansy]\nkey = %s\ncaps mon = "allow r"\ncaps osd = "allow rwx pool=tansy"\n' "$4"
    for osd in 0 1 2; do
      printf '[osd.%s]\nkey = %s\ncaps mon = "allow profile osd"\ncaps osd = "allow *"\n' "$osd" "$4"
    done
  } >"$1/keyring"
  cat >"$1/ceph.conf" <<END
[global]
fsid = $3
mon_host = v2:127.0.0.1:$2
mon_initial_members = a
public_network = 127.0.0.0/8
ms_bind_ipv6 = false
keyring = $1/keyring
run_dir = $1
log_file = $1/\$name.log
admin_socket =
crash_dir = $1
mon_cluster_log_file = $1/cluster.log
auth_allow_insecure_global_id_reclaim = false
osd_pool_default_size = 2
osd_pool_default_min_size = 1
osd_crush_chooseleaf_type = 0
osd_pool_default_pg_autoscale_mode = off
osd_pool_default_pg_num = 8
osd_pool_default_pgp_num = 8
osd_crush_initial_weight = 1
mon_data_avail_warn = 1
mon_data_avail_crit = 1
osd_objectstore = memstore
memstore_device_bytes = ${private_osd_bytes:-1073741824}
osd_memory_target = 134217728
[mon.a]
mon_data = $1/mon
[osd]
osd_data = $1/\$name
[client]
log_file =
END
  monmaptool --create --addv a "[v2:127.0.0.1:$2]" --fsid "$3" "$1/monmap" >/dev/null
}
