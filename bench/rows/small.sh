# Objects of 4 KiB: reads, writes under new names, overwrites, removals.

small_bytes=4096
small_keys=10000

# Reads of 10,000 keys, by header or by link.
prepare_small_get() { # CONTENDER PLACE header|link CONNECTIONS [https_url]
  use_server "$1" "$2" full
  store_objects small "$small_keys" $small_bytes 64
  run_small_get "$1" warm "${@:2}" >/dev/null
}

run_small_get() { # CONTENDER RUN PLACE header|link CONNECTIONS [https_url]
  use_server "$1" "$3" full
  local time=$seconds
  [[ $2 != warm ]] || time=1
  measured wrk_load "$(<"$server/${6:-url}")" "$5" "$time" "$(request_file GET small 1 "$small_keys" "$4")" cycle
}

finish_small_get() { # CONTENDER PLACE ...
  use_server "$1" "$2" full
  check_some small "$small_keys" $small_bytes
}

add_row get-4k nginx 'rate>=1.0 cpu<=30' 'small_get disk header 64' \
  'GET of 4 KiB, 10,000 keys, 64 connections, signed header, disk'
add_row get-4k-link nginx 'rate>=1.0 cpu<=30' 'small_get disk link 64' 'the same, signed link'
add_row get-4k-mem nginx 'rate>=1.0 cpu<=30' 'small_get memory header 64' 'the same, signed header, files in memory'
add_row get-4k-one nginx 'p50<=1.3' 'small_get disk header 1' 'the same, one connection; the ratio is that of p50'
add_row get-4k-https nginx 'rate>=0.95' 'small_get disk header 64 https_url' 'the same over HTTPS, 64 connections'

# More names than can be written in the time of a run, also when one of the two threads of wrk writes most of them.
fresh_names=$((100000 * seconds))

# Writes under names that are new in each run. Each server is one of its own, because a run leaves many files behind.
run_small_put() { # CONTENDER RUN PLACE DURABILITY
  local body=$disk/small-body names
  use_server "$1" "$3" "$4" "put-$3-$4"
  settle
  names=$(request_file PUT "run$2" 1 "$fresh_names")
  "$tansy_load" content /bench/run1-000001 $small_bytes >"$body"
  measured wrk_load "$(<"$server/url")" 64 "$seconds" "$names" once "$body" named
  # wrk does not send the very first request: it only looks at it.
  check_bodies "$(<"$server/url")" "$(request_file GET "run$2" 2 3)" 1 $small_bytes
}

prepare_small_put() { # CONTENDER PLACE DURABILITY
  use_server "$1" "$2" "$3" "put-$2-$3"
  store_objects warm 500 $small_bytes 64
}

finish_small_put() { # CONTENDER PLACE DURABILITY
  [[ $2 == disk ]] || stop_tagged "put-$2-$3"
}

add_row put-4k-fast-mem nginx 'rate>=0.8' 'small_put memory fast' \
  'PUT of 4 KiB under new names, 64 connections, durability fast, files in memory'
add_row put-4k-fast nginx 'rate>=1.5' 'small_put disk fast' 'the same, files on the disk'

# The same with full durability, beside what one thread reaches that writes 4 KiB and waits for the disk.
run_small_full() { # CONTENDER RUN
  if [[ $1 == fio ]]; then
    run_fio
  else
    run_small_put "$1" "$2" disk full
  fi
}

prepare_small_full() { # CONTENDER
  need_ext4
  [[ $1 == fio ]] || prepare_small_put "$1" disk full
}

add_row put-4k-full fio 'rate>=3' small_full \
  'PUT of 4 KiB under new names, 64 connections, durability full, against one thread that writes 4 KiB and calls fdatasync'

# Overwrites of 1,000 names with full durability.
prepare_overwrite() { # CONTENDER [PLACE]
  need_ext4
  [[ $1 != fio ]] || return 0
  use_server "$1" "${2:-disk}" full overwrite
  store_objects over 1000 $small_bytes 64
}

run_overwrite() { # CONTENDER RUN [PLACE]
  if [[ $1 == fio ]]; then
    run_fio
    return
  fi
  use_server "$1" "${3:-disk}" full overwrite
  settle
  measured overwrite_load "$seconds"
  check_some over 1000 $small_bytes
}

overwrite_load() { # SECONDS
  local body=$disk/over-body
  [[ -e $body ]] || "$tansy_load" content /bench/over-000001 $small_bytes >"$body"
  wrk_load "$(<"$server/url")" 64 "$1" "$(request_file PUT over 1 1000)" cycle "$body" named
}

add_row overwrite-4k-full fio 'rate>=2' overwrite 'PUT of 4 KiB over 1,000 names, 64 connections, durability full'

# Removals: each run stores its objects first, which is not measured.
removals=$((4000 * seconds))

prepare_remove() { # CONTENDER [PLACE]
  need_ext4
  [[ $1 == fio ]] || use_server "$1" "${2:-disk}" full remove
}

run_remove() { # CONTENDER RUN [PLACE]
  if [[ $1 == fio ]]; then
    run_fio
    return
  fi
  use_server "$1" "${3:-disk}" full remove
  local names=$disk/requests/remove-small-$2
  store_objects "remove$2" $removals $small_bytes 64
  [[ -e $names ]] || seq -f "DELETE /bench/remove$2-%06.0f?deletefile" 1 $removals | "$tansy_load" sign header >"$names"
  settle
  rm "$server/stored-remove$2" # another row may store them again
  measured load "$(<"$server/url")" "$names" 64 0
}

add_row delete-4k-full fio 'rate>=2' remove "DELETE of objects of 4 KiB with their bytes (?deletefile), 64 connections, durability full, $removals a run"

# Reads of other keys beside something else, against the same reads alone.
prepare_get_beside() { # CONTENDER LOAD
  need_ext4
  use_server "$(beside_server "$1")" disk full beside
  store_objects small "$small_keys" $small_bytes 64
  store_objects over 1000 $small_bytes 64
}

beside_server() { # CONTENDER
  [[ $1 == alone ]] && echo tansyd || echo "$1"
}

run_get_beside() { # CONTENDER RUN LOAD
  use_server "$(beside_server "$1")" disk full beside
  local other='' status=0
  settle
  if [[ $1 != alone ]]; then
    "$3" "$((seconds + 2))" >"$disk/beside.out" &
    other=$!
    sleep 0.7 # until the load is under way
  fi
  measured wrk_load "$(<"$server/url")" 16 "$seconds" "$(request_file GET small 1 "$small_keys")" cycle || status=1
  [[ -z $other ]] || wait "$other" || status=1
  return $status
}

finish_get_beside() { # CONTENDER
  # Uploads that were broken off leave their bytes for some minutes, so the first to finish drops the servers.
  if [[ -e $disk/servers/$(beside_server "$1")-disk-full-beside/url ]]; then
    use_server "$(beside_server "$1")" disk full beside
    check_some small "$small_keys" $small_bytes
    drop_tagged beside
  fi
}

add_row get-beside-puts alone 'p99<=2' 'get_beside overwrite_load' \
  'GET of 4 KiB, 16 connections, beside the overwrites of the row above, against the same alone; the ratio is that of p99'

# Sixteen uploads of 256 MiB, for as long as the reads take; then they are broken off.
upload_load() { # SECONDS
  local uploads status=0
  "$tansy_load" run "$(<"$server/url")" "$(request_file PUT "upload$RANDOM" 1 64)" 16 $((256 * 1048576)) &
  uploads=$!
  sleep "$1"
  if kill "$uploads" 2>/dev/null; then
    wait "$uploads" || true
  else
    fail "the uploads ended before the reads did" || status=1
  fi
  return $status
}

add_row get-beside-uploads alone 'p99<=5' 'get_beside upload_load' \
  'GET of 4 KiB, 16 connections, beside 16 uploads of 256 MiB with durability full, against the same alone; the ratio is that of p99'
