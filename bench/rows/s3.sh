# The S3 protocol, signed by version 4 in a header, beside the object protocol on the same server: the other contender,
# "own", sends the same requests to the other port. Files are in memory, so that the protocols are measured and not the
# disk.

use_s3_server() { # CONTENDER
  local program=$1
  [[ $1 != own ]] || program=tansyd
  use_server "$program" memory full s3
}

# Sets $url and $names to where a contender sends its requests.
s3_target() { # CONTENDER METHOD PREFIX FIRST LAST
  if [[ $1 == own ]]; then
    url=$(<"$server/url")
    names=$(request_file "${@:2}")
  else
    url=$(<"$server/s3_url")
    names=$(s3_requests "${@:2}")
  fi
}

prepare_s3_get() { # CONTENDER BYTES KEYS CONNECTIONS
  local line
  use_s3_server "$1"
  [[ ! -e $server/s3-stored-$2 ]] || return 0
  # By S3, because an object of the other protocol gets its entity tag when it is first read by S3.
  line=$(load "$(<"$server/s3_url")" "$(s3_requests PUT "s3-$2" 1 "$3")" 16 "$2") || return 1
  (($(field errors "$line") == 0)) || { fail "storing objects failed"; return 1; }
  touch "$server/s3-stored-$2"
}

run_s3_get() { # CONTENDER RUN BYTES KEYS CONNECTIONS
  local url names
  use_s3_server "$1"
  s3_target "$1" GET "s3-$3" 1 "$4"
  measured wrk_load "$url" "$5" "$seconds" "$names" cycle
}

finish_s3_get() { # CONTENDER BYTES KEYS CONNECTIONS
  use_s3_server "$1"
  check_some "s3-$2" "$3" "$2"
}

# Adds what the rate would be without the MD5 digest of each body, which only S3 asks for: both processors are busy in these rows,
# and one digest takes so many microseconds of one of them, measured alone just now.
without_digest() { # RECORD MICROSECONDS
  awk -v line="$1" -v digest="$2" -v processors="$(nproc)" 'BEGIN {
    rate = line
    sub(/^rate=/, "", rate)
    rate += 0
    printf "%s digest=%s aside=%.2f\n", line, digest, 1 / (1 / rate - digest / 1e6 / processors)
  }'
}

# Writes over 500 names; the bytes that were replaced go after some minutes.
run_s3_put() { # CONTENDER RUN BYTES CONNECTIONS
  local body=$disk/s3-body-$3 url names digest=0 line
  use_s3_server "$1"
  [[ -e $body ]] || "$tansy_load" content /bench/s3-put-000001 "$3" >"$body"
  s3_target "$1" PUT "s3-put" 1 500
  [[ $1 == own ]] || digest=$("$tansy_load" digest "$3")
  line=$(measured wrk_load "$url" "$4" "$seconds" "$names" cycle "$body") || return 1
  without_digest "$line" "$digest"
}

finish_s3_put() { # CONTENDER BYTES CONNECTIONS
  drop_tagged s3
}

add_row s3-get-4k own 'rate>=0.9' 's3_get 4096 10000 64' 'GET of 4 KiB by S3, 64 connections, against our own protocol'
add_row s3-get-1m own 'rate>=0.9' 's3_get 1048576 200 16' 'GET of 1 MiB by S3, 16 connections, against our own protocol'
add_row s3-put-4k own 'rate>=0 aside/>=0.9' 's3_put 4096 64' \
  'PUT of 4 KiB by S3, 64 connections, against our own protocol; "aside" is the ratio without the MD5 digest of the body'
add_row s3-put-1m own 'rate>=0 aside/>=0.9' 's3_put 1048576 8' 'PUT of 1 MiB by S3, 8 connections, the same'

# Listings of 1,000 keys that begin at any place of a bucket of 1,000,000 objects, beside those of a bucket of 10,000.
use_listed() { # CONTENDER
  if [[ $1 == short ]]; then
    use_server tansyd disk fast short
  else
    use_million "$1"
  fi
}

prepare_s3_list() { # CONTENDER
  use_listed "$1"
  [[ $1 != short ]] || store_objects folder-000-object 10000 16 64
  run_s3_list "$1" warm >/dev/null
}

# Twenty thousand places; both kinds of keys begin with "folder-NNN-object-" and a number.
listings() { # CONTENDER
  awk -v contender="$1" 'BEGIN {
    srand(1)
    for (i = 0; i < 20000; ++i) {
      key = contender == "short" ? sprintf("folder-000-object-%06d", 1 + int(rand() * 8900)) \
                                 : sprintf("folder-%03d-object-%07d.jpg", int(rand() * 998), 1 + int(rand() * 1000000))
      print "GET /bench?list-type=2&max-keys=1000&start-after=" key
    }
  }'
}

run_s3_list() { # CONTENDER RUN
  local line names
  use_listed "$1"
  names=$(listings "$1" | s3_signed lists)
  line=$(measured wrk_load "$(<"$server/s3_url")" 1 "$seconds" "$names" cycle) || return 1
  echo "$line"
  check_listing "$1"
}

# Looks whether a listing has a thousand keys.
check_listing() { # CONTENDER
  local line keys
  line=$(listings "$1" | sed -n 1p | s3_signed one-list)
  line=$(tail -1 "$line")
  keys=$(curl --silent --show-error --fail -H "$(sed -n '1s/\t.*//p' "$server/requests-one-list")" \
    -H "$(sed -n '1s/.*\t//p' "$server/requests-one-list")" -H "Authorization: ${line##*$'\t'}" \
    "$(<"$server/s3_url")$(cut -f2 <<<"$line")" | grep -o '<Key>' | wc -l)
  ((keys == 1000)) || fail "a listing has $keys keys"
}

finish_s3_list() { # CONTENDER
  stop_tagged "$([[ $1 == short ]] && echo short || echo million)"
}

add_row s3-list short 'p50<=2 p50<=5000' s3_list \
  'ListObjectsV2 of 1,000 keys at random places, bucket of 1,000,000 objects, one connection, against one of 10,000; the ratio is that of p50'
