# The catalogue in PostgreSQL, the bytes in a Ceph pool, both, and several tansyd on both. PostgreSQL and Ceph run on this machine and
# share its processors; the pool is in memory. The processor time is that of tansyd alone.

# The rows of the usual table, beside the same tansyd with its catalogue and its bytes on the disk ("plain").
for place in postgres rados postgres-rados; do
  case $place in
    postgres) short=pg text='rows in PostgreSQL, bytes on the disk' ;;
    rados) short=rados text='rows in SQLite, bytes in a Ceph pool' ;;
    *) short=pgrados text='rows in PostgreSQL, bytes in a Ceph pool' ;;
  esac
  add_row $short-get-4k plain 'rate>=0' "small_get $place header 64" "GET of 4 KiB, 64 connections; $text"
  add_row $short-put-4k plain 'rate>=0' "small_put $place full" "PUT of 4 KiB, new names, 64 connections, full; $text"
  add_row $short-overwrite-4k plain 'rate>=0' "overwrite $place" "PUT of 4 KiB over 1,000 names, full; $text"
  add_row $short-delete-4k plain 'rate>=0' "remove $place" "DELETE of objects of 4 KiB, full; $text"
  add_row $short-get-1m plain 'mib>=0' "large_get $place 1 64 16 0" "GET of 1 MiB, 16 connections; $text"
  add_row $short-put-1m plain 'mib>=0' "large_put $place full 1 64 16" "PUT of 1 MiB, 16 connections, full; $text"
  add_row $short-get-64m plain 'mib>=0' "large_get $place 64 4 8 0" "GET of 64 MiB, 8 connections; $text"
  add_row $short-put-64m plain 'mib>=0' "large_put $place full 64 4 4" "PUT of 64 MiB, 4 connections, full; $text"
done

# Requests spread over several nodes, beside one node alone. All nodes share the processors of this machine.
prepare_nodes() { # CONTENDER COUNT get|put BYTES CONNECTIONS
  use_nodes "$(node_count "$@")"
  [[ $3 == put ]] || store_on_nodes "$4"
}

node_count() { # CONTENDER COUNT ...
  [[ $1 == one ]] && echo 1 || echo "$2"
}

# Stores through the first node; whoever does not know an object yet asks the database.
store_on_nodes() { # BYTES
  local each
  server=${nodes[0]}
  store_objects "nodes$1" "$(node_keys "$1")" "$1" 16
  for each in "${nodes[@]}"; do
    check_bodies "$(<"$each/url")" "$(request_file GET "nodes$1" 1 "$(node_keys "$1")")" 16 "$1"
  done
}

node_keys() { # BYTES
  (($1 > 65536)) && echo 64 || echo "$small_keys"
}

run_nodes() { # CONTENDER RUN COUNT get|put BYTES CONNECTIONS
  local count before after peak=0 each
  count=$(node_count "$1" "$3")
  use_nodes "$count"
  for each in "${nodes[@]}"; do
    reset_peak "$each"
  done
  before=$(nodes_cpu_ms)
  nodes_load "$2" "$4" "$5" $(($6 / count)) || return 1
  after=$(nodes_cpu_ms)
  for each in "${nodes[@]}"; do
    peak=$((peak + $(memory_kib "$each" VmHWM)))
  done
  record "$(sum_figures "$disk"/node-figures.*)" $((after - before)) "$peak"
}

nodes_cpu_ms() {
  local each total=0
  for each in "${nodes[@]}"; do
    total=$((total + $(cpu_ms "$each")))
  done
  echo "$total"
}

# Loads all nodes at the same time, each through connections of its own.
nodes_load() { # RUN get|put BYTES CONNECTIONS
  local i jobs=() status=0
  rm -f "$disk"/node-figures.*
  for i in "${!nodes[@]}"; do
    server=${nodes[i]}
    "node_$2" "$1-$i" "${@:3}" >"$disk/node-figures.$i" &
    jobs+=($!)
  done
  for i in "${jobs[@]}"; do
    wait "$i" || status=1
  done
  return $status
}

node_get() { # RUN BYTES CONNECTIONS
  if (($2 > 65536)); then
    load "$(<"$server/url")" "$(reads_of "nodes$2" 64 64)" "$3" "$2" "$seconds"
  else
    wrk_load "$(<"$server/url")" "$3" "$seconds" "$(request_file GET "nodes$2" 1 "$small_keys")" cycle
  fi
}

# New names.
node_put() { # RUN BYTES CONNECTIONS
  local body=$disk/node-body-$2 prefix=node$1-$2
  if (($2 > 65536)); then
    load "$(<"$server/url")" "$(request_file PUT "$prefix" 1 32)" "$3" "$2" &&
      check_bodies "$(<"$server/url")" "$(request_file GET "$prefix" 32 32)" 1 "$2"
  else
    "$tansy_load" content /bench/run1-000001 "$2" >"$body"
    wrk_load "$(<"$server/url")" "$3" "$seconds" "$(request_file PUT "$prefix" 1 $((20000 * seconds)))" once "$body" named
  fi
}

# One line of figures for several load tools that ran at the same time: everything they did, the mean of their medians, and the worst
# of their slowest.
sum_figures() { # FILE...
  awk '{
    for (i = 1; i <= NF; ++i) {
      split($i, pair, "=")
      value[pair[1]] = pair[2]
    }
    requests += value["requests"]; bytes += value["bytes"]; errors += value["errors"]; p50 += value["p50"]
    if (value["seconds"] > seconds) seconds = value["seconds"]
    if (value["p99"] > p99) p99 = value["p99"]
  } END {
    printf "requests=%d seconds=%.6f bytes=%.0f p50=%.0f p99=%.0f errors=%d\n", requests, seconds, bytes, p50 / NR, p99, errors
  }' "$@"
}

finish_nodes() { # CONTENDER COUNT ...
  stop_tagged "nodes$(node_count "$@")"
}

for count in 2 3; do
  add_row "nodes-get-4k-$count" one 'rate>=0' "nodes $count get 4096 48" "GET of 4 KiB, 48 connections to $count nodes, against one node"
  add_row "nodes-put-4k-$count" one 'rate>=0' "nodes $count put 4096 48" "PUT of 4 KiB, new names, the same"
  add_row "nodes-get-1m-$count" one 'mib>=0' "nodes $count get 1048576 12" "GET of 1 MiB, 12 connections to $count nodes, against one node"
  add_row "nodes-put-1m-$count" one 'mib>=0' "nodes $count put 1048576 12" "PUT of 1 MiB, new names, the same"
done
