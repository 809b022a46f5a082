# Objects of 1 MiB, 64 MiB and 1 GiB: reads over HTTP and HTTPS, writes in one request and in parts.

mib=1048576

# A file of COUNT reads that goes round the first KEYS objects.
reads_of() { # PREFIX KEYS COUNT
  local file=$disk/requests/reads-$1-$2-$3 keys
  if [[ ! -e $file ]]; then
    keys=$(request_file GET "$1" 1 "$2") || return 1
    awk -v count="$3" 'NR == 1 {print; next} {line[n++] = $0} END {for (i = 0; i < count; ++i) print line[i % n]}' "$keys" >"$file"
  fi
  echo "$file"
}

# Reads. With a COUNT a run is so many requests, else it takes the usual time.
prepare_large_get() { # CONTENDER PLACE MIB KEYS CONNECTIONS COUNT [https_url]
  use_server "$1" "$2" full
  store_objects "large$3" "$4" $(($3 * mib)) 4
  run_large_get "$1" warm "${@:2}" >/dev/null
}

run_large_get() { # CONTENDER RUN PLACE MIB KEYS CONNECTIONS COUNT [https_url]
  use_server "$1" "$3" full
  local how=once count=$7 line
  if ((count == 0)); then
    how=$seconds count=$5
  fi
  [[ $2 != warm ]] || { how=once count=$6; }
  measured load "$(<"$server/${8:-url}")" "$(reads_of "large$4" "$5" "$count")" "$6" $(($4 * mib)) "$how"
}

finish_large_get() { # CONTENDER PLACE MIB KEYS ...
  use_server "$1" "$2" full
  check_some "large$3" "$4" $(($3 * mib))
}

for scheme in '' -https; do
  goal='mib>=1.0' text=HTTP
  [[ -z $scheme ]] || { goal='mib>=0.95' text=HTTPS; }
  url=${scheme:+https_url}
  add_row "get-1m$scheme" nginx "$goal" "large_get disk 1 64 16 0 $url" "GET of 1 MiB, 64 keys, 16 connections, $text, disk"
  add_row "get-64m-1$scheme" nginx "$goal" "large_get disk 64 4 1 0 $url" "GET of 64 MiB, 4 keys, one connection, $text"
  add_row "get-64m-8$scheme" nginx "$goal" "large_get disk 64 4 8 0 $url" "GET of 64 MiB, 4 keys, 8 connections, $text"
  add_row "get-1g-1$scheme" nginx "$goal" "large_get disk 1024 1 1 2 $url" "GET of 1 GiB, one connection, $text, 2 requests a run"
  add_row "get-1g-8$scheme" nginx "$goal" "large_get disk 1024 1 8 8 $url" "GET of 1 GiB, 8 connections, $text, 8 requests a run"
done
add_row get-1m-mem nginx 'mib>=1.0' 'large_get memory 1 64 16 0' 'GET of 1 MiB, 64 keys, 16 connections, HTTP, files in memory'

# Writes of so many objects under new names; they are removed after each run.
prepare_large_put() { # CONTENDER PLACE DURABILITY MIB COUNT CONNECTIONS
  use_server "$1" "$2" "$3" large-put
  run_large_put "$1" warm "$2" "$3" "$4" "$6" "$6" >/dev/null
}

run_large_put() { # CONTENDER RUN PLACE DURABILITY MIB COUNT CONNECTIONS
  use_server "$1" "$3" "$4" large-put
  local prefix=put$5-$2
  settle
  measured load "$(<"$server/url")" "$(request_file PUT "$prefix" 1 "$6")" "$7" $(($5 * mib))
  check_bodies "$(<"$server/url")" "$(request_file GET "$prefix" "$6" "$6")" 1 $(($5 * mib))
  remove_objects "$prefix" "$6"
}

# Removes objects and their bytes.
remove_objects() { # PREFIX COUNT
  local names=$disk/requests/remove-$1-$2 line
  [[ -e $names ]] || seq -f "DELETE /bench/$1-%06.0f?deletefile" 1 "$2" | "$tansy_load" sign header >"$names"
  line=$(load "$(<"$server/url")" "$names" 4 0) || return 1
  (($(field errors "$line") == 0)) || fail "removing objects failed"
}

finish_large_put() {
  drop_tagged large-put
}

for place in disk memory; do
  suffix='' text='files on the disk'
  [[ $place == disk ]] || { suffix=-mem; text='files in memory'; }
  add_row "put-1m$suffix" nginx 'mib>=0.95' "large_put $place fast 1 320 16" \
    "PUT of 1 MiB, new names, 16 connections, durability fast, $text, 320 requests a run"
  add_row "put-64m$suffix" nginx 'mib>=0.95' "large_put $place fast 64 8 4" "PUT of 64 MiB, 4 connections, fast, $text, 8 requests a run"
  add_row "put-1g$suffix" nginx 'mib>=0.95' "large_put $place fast 1024 1 1" "PUT of 1 GiB, one connection, fast, $text"
done

# One object of 1 GiB with full durability, beside dd, which waits for the disk once at its end.
prepare_large_full() { # CONTENDER
  need_ext4
  [[ $1 == dd ]] || prepare_large_put "$1" disk full 1024 1 1
}

run_large_full() { # CONTENDER RUN
  if [[ $1 == dd ]]; then
    run_dd
  else
    run_large_put "$1" "$2" disk full 1024 1 1
  fi
}

finish_large_full() {
  drop_tagged large-put
}

add_row put-1g-full dd 'mib>=0.95' large_full 'PUT of 1 GiB, one connection, durability full, against dd conv=fdatasync'

# One object of 1 GiB in parts of 8 MiB, beside the same in one request.
prepare_multipart() { # CONTENDER DURABILITY
  [[ $2 == fast ]] || need_ext4
  prepare_large_put "$(multipart_server "$1")" disk "$2" 1024 1 1
}

# The other contender of these rows is the same tansyd, asked in another way.
multipart_server() { # CONTENDER
  [[ $1 == one-put ]] && echo tansyd || echo "$1"
}

run_multipart() { # CONTENDER RUN DURABILITY
  if [[ $1 == one-put ]]; then
    run_large_put tansyd "$2" disk "$3" 1024 1 1
    return
  fi
  use_server "$1" disk "$3" large-put
  local name=parts-$2
  settle
  measured "$tansy_load" multipart "$(<"$server/url")" "/bench/$name-000001" $((1024 * mib)) $((8 * mib)) 4
  check_bodies "$(<"$server/url")" "$(request_file GET "$name" 1 1)" 1 $((1024 * mib))
  remove_objects "$name" 1
}

finish_multipart() {
  drop_tagged large-put
}

add_row multipart-1g one-put 'mib>=1.0' 'multipart full' \
  'upload of 1 GiB in parts of 8 MiB, 4 connections, durability full, against one PUT'
add_row multipart-1g-fast one-put 'mib>=1.0' 'multipart fast' 'the same, durability fast'
