# tansyd with its rows in PostgreSQL and its bytes in a Ceph pool, beside Ceph's own gateway on the same pool. Both get the same requests
# of the S3 protocol, signed by version 4 in a header.

gateway_server() { # CONTENDER
  use_server "$1" postgres-rados full gateway
}

prepare_gateway_get() { # CONTENDER BYTES KEYS CONNECTIONS
  local line
  gateway_server "$1"
  if [[ ! -e $server/stored-gateway$2 ]]; then
    line=$(load "$(<"$server/s3_url")" "$(s3_requests PUT "gateway$2" 1 "$3")" 16 "$2") || return 1
    (($(field errors "$line") == 0)) || { fail "storing objects failed"; return 1; }
    touch "$server/stored-gateway$2"
  fi
  check_bodies "$(<"$server/s3_url")" "$(s3_requests GET "gateway$2" 1 3)" 1 "$2"
}

run_gateway_get() { # CONTENDER RUN BYTES KEYS CONNECTIONS
  local names
  gateway_server "$1"
  names=$(s3_requests GET "gateway$3" 1 "$4")
  if (($3 > 65536)); then
    measured load "$(<"$server/s3_url")" "$names" "$5" "$3" "$seconds"
  else
    measured wrk_load "$(<"$server/s3_url")" "$5" "$seconds" "$names" cycle
  fi
}

prepare_gateway_put() { # CONTENDER BYTES COUNT CONNECTIONS
  gateway_server "$1"
}

# So many objects under new names; with a COUNT of 0, small ones for the usual time.
run_gateway_put() { # CONTENDER RUN BYTES COUNT CONNECTIONS
  local names body=$disk/gateway-body prefix=put$2-$3
  gateway_server "$1"
  settle
  if (($4 == 0)); then
    names=$(s3_requests PUT "$prefix" 1 $((20000 * seconds)))
    "$tansy_load" content /bench/run1-000001 "$3" >"$body"
    measured wrk_load "$(<"$server/s3_url")" "$5" "$seconds" "$names" once "$body" named
    check_bodies "$(<"$server/s3_url")" "$(s3_requests GET "$prefix" 2 3)" 1 "$3"
  else
    measured load "$(<"$server/s3_url")" "$(s3_requests PUT "$prefix" 1 "$4")" "$5" "$3"
    check_bodies "$(<"$server/s3_url")" "$(s3_requests GET "$prefix" "$4" "$4")" 1 "$3"
    forget_in_pool "$1" "$prefix" "$4"
  fi
}

# Removes large objects with their bytes, which the pool keeps in memory.
forget_in_pool() { # CONTENDER PREFIX COUNT
  if [[ $1 == gateway ]]; then
    load "$(<"$server/s3_url")" "$(s3_requests DELETE "$2" 1 "$3")" 4 0 >/dev/null
    radosgw-admin -c "$disk/services/ceph/ceph.conf" gc process --include-all >/dev/null
  else
    remove_objects "$2" "$3"
  fi
}

add_row gateway-get-4k gateway 'rate>=1.5' 'gateway_get 4096 10000 64' 'GET of 4 KiB by S3, 10,000 keys, 64 connections, pool'
add_row gateway-put-4k gateway 'rate>=1.5' 'gateway_put 4096 0 64' 'PUT of 4 KiB by S3, new names, 64 connections, pool'
add_row gateway-get-1m gateway 'mib>=1.0' 'gateway_get 1048576 64 16' 'GET of 1 MiB by S3, 64 keys, 16 connections, pool'
add_row gateway-put-1m gateway 'mib>=1.0' 'gateway_put 1048576 96 16' 'PUT of 1 MiB by S3, new names, 16 connections, pool'
add_row gateway-get-64m gateway 'mib>=1.0' 'gateway_get 67108864 4 4' 'GET of 64 MiB by S3, 4 keys, 4 connections, pool'
add_row gateway-put-64m gateway 'mib>=1.0' 'gateway_put 67108864 6 4' 'PUT of 64 MiB by S3, new names, 4 connections, pool'
for name in gateway-{get,put}-{4k,1m,64m}; do
  row_needs "$name" radosgw
done
