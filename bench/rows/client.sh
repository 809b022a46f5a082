# The command-line client beside curl. The server is a tansyd with its files in memory and durability fast, so that the
# clients are measured and not the disk.

client_files=2000
curl_files=200
client_bytes=65536

client_program() { # CONTENDER
  [[ $1 == against ]] && echo "$(dirname "$against")/tansy" || echo "$tansy"
}

prepare_client() { # CONTENDER
  use_server tansyd memory fast client
  mkdir -p "$memory/client/many" "$memory/client/down"
  [[ ! -e $memory/client/large ]] || return 0
  "$tansy_load" content /bench/large 1073741824 >"$memory/client/large"
  "$tansy_load" content /bench/many $((client_bytes * client_files)) | split -b $client_bytes -a 4 -d - "$memory/client/many/file-"
  export TANSY_SERVER
  TANSY_SERVER=$(<"$server/url")
  "$tansy" --quiet --pool bench put --keep-name "$memory/client/large" "$memory"/client/many/* >/dev/null
}

# Runs a command and prints its record: how many things it moved, and how many bytes.
timed() { # THINGS BYTES COMMAND...
  local things=$1 bytes=$2 begin=$EPOCHREALTIME end
  shift 2
  "$@" >/dev/null || { fail "failed: $1"; return 1; }
  end=$EPOCHREALTIME
  awk -v things="$things" -v bytes="$bytes" -v begin="$begin" -v end="$end" \
    'BEGIN {t = end - begin; printf "rate=%.3f mib=%.2f\n", things / t, bytes / 1048576 / t}'
}

signed_headers() { # METHOD PATH
  printf '%s %s\n' "$1" "$2" | "$tansy_load" sign header |
    awk -F '\t' 'NR == 1 {print; next} {print "Authorization: " $3; print "Content-Type:"}'
}

run_client() { # CONTENDER RUN put|get large|many
  use_server tansyd memory fast client
  export TANSY_SERVER
  TANSY_SERVER=$(<"$server/url")
  "client_$3_$4" "$1"
}

client_put_large() { # CONTENDER
  local from=$memory/client/large
  if [[ $1 == curl ]]; then
    signed_headers PUT /bench/by-curl >"$disk/headers"
    timed 1 1073741824 curl --silent --show-error --fail -H "@$disk/headers" -T "$from" "$TANSY_SERVER/bench/by-curl"
  else
    timed 1 1073741824 "$(client_program "$1")" --quiet put "$from" /bench/by-tansy
    "$tansy" --quiet get /bench/by-tansy - | cmp - "$from"
  fi
  forget_large
}

# The bytes of what was replaced stay for some minutes, so large objects are removed with theirs.
forget_large() {
  local name
  for name in by-curl by-tansy; do
    scripts/signed-curl.sh DELETE "/bench/$name?deletefile" -o /dev/null
  done
}

client_get_large() { # CONTENDER
  local to=$memory/client/down/large
  rm -f "$to"
  if [[ $1 == curl ]]; then
    signed_headers GET /bench/large >"$disk/headers"
    timed 1 1073741824 curl --silent --show-error --fail -H "@$disk/headers" -o "$to" "$TANSY_SERVER/bench/large"
  else
    timed 1 1073741824 "$(client_program "$1")" --quiet get /bench/large "$to"
  fi
  cmp "$to" "$memory/client/large"
  rm -f "$to"
}

# One curl process for each file, with its headers signed before.
curl_each() { # METHOD
  local method=$1 signed i file
  mapfile -t signed <"$disk/curl-$method"
  for ((i = 0; i < curl_files; i++)); do
    file=file-$(printf %04d "$i")
    if [[ $method == PUT ]]; then
      curl --silent --show-error --fail -H "${signed[0]}" -H "Authorization: ${signed[i + 1]##*$'\t'}" -H 'Content-Type:' \
        -T "$memory/client/many/$file" "$TANSY_SERVER/bench/$file" || return 1
    else
      curl --silent --show-error --fail -H "${signed[0]}" -H "Authorization: ${signed[i + 1]##*$'\t'}" \
        -o "$memory/client/down/$file" "$TANSY_SERVER/bench/$file" || return 1
    fi
  done
}

client_put_many() { # CONTENDER
  if [[ $1 == curl ]]; then
    client_names PUT >"$disk/curl-PUT"
    timed $curl_files $((curl_files * client_bytes)) curl_each PUT
  else
    timed $client_files $((client_files * client_bytes)) "$(client_program "$1")" --quiet --pool bench put --keep-name \
      "$memory"/client/many/*
    cmp <("$tansy" --quiet get /bench/file-1999 -) "$memory/client/many/file-1999"
  fi
}

client_get_many() { # CONTENDER
  rm -f "$memory"/client/down/*
  if [[ $1 == curl ]]; then
    client_names GET >"$disk/curl-GET"
    timed $curl_files $((curl_files * client_bytes)) curl_each GET
  else
    local urls
    mapfile -t urls < <(seq -f '/bench/file-%04.0f' 0 $((client_files - 1)))
    timed $client_files $((client_files * client_bytes)) "$(client_program "$1")" --quiet get "${urls[@]}" "$memory/client/down"
    cmp "$memory/client/down/file-1999" "$memory/client/many/file-1999"
  fi
  cmp "$memory/client/down/file-0000" "$memory/client/many/file-0000"
  rm -f "$memory"/client/down/*
}

client_names() { # METHOD
  seq -f "$1 /bench/file-%04.0f" 0 $((curl_files - 1)) | "$tansy_load" sign header
}

add_row tansy-put-1g curl 'mib>=0.95' 'client put large' 'tansy put of one file of 1 GiB, against curl -T'
add_row tansy-get-1g curl 'mib>=0.95' 'client get large' 'tansy get of one object of 1 GiB into a file, against curl -o'
add_row tansy-put-many curl 'rate>=5' 'client put many' \
  'tansy put of 2,000 files of 64 KiB, against one curl process per file (200 of them a run); files a second'
add_row tansy-get-many curl 'rate>=5' 'client get many' 'tansy get of 2,000 objects of 64 KiB, against one curl process per object'
