# The S3 protocol, signed by version 4 in a header, beside the object protocol on the same server: the other contender,
# "own", sends the same requests to the other port. Files are in memory, so that the protocols are measured and not the
# disk.

# The signature of S3 covers the port and the time, so each run signs its own requests.
s3_requests() { # METHOD PREFIX FIRST LAST
  local url file=$disk/requests/s3-$1-$2
  url=$(<"$server/s3_url")
  seq -f "$1 /bench/$2-%06.0f" "$3" "$4" | "$tansy_load" sign s3 "${url#http://}" >"$file" || return 1
  echo "$file"
}

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

# Writes over 500 names; the bytes that were replaced go after some minutes.
run_s3_put() { # CONTENDER RUN BYTES CONNECTIONS
  local body=$disk/s3-body-$3 url names
  use_s3_server "$1"
  [[ -e $body ]] || "$tansy_load" content /bench/s3-put-000001 "$3" >"$body"
  s3_target "$1" PUT "s3-put" 1 500
  measured wrk_load "$url" "$4" "$seconds" "$names" cycle "$body"
}

finish_s3_put() { # CONTENDER BYTES CONNECTIONS
  drop_tagged s3
}

add_row s3-get-4k own 'rate>=0.9' 's3_get 4096 10000 64' 'GET of 4 KiB by S3, 64 connections, against our own protocol'
add_row s3-get-1m own 'rate>=0.9' 's3_get 1048576 200 16' 'GET of 1 MiB by S3, 16 connections, against our own protocol'
add_row s3-put-4k own 'rate>=0.9' 's3_put 4096 64' 'PUT of 4 KiB by S3, 64 connections, against our own protocol'
add_row s3-put-1m own 'rate>=0.9' 's3_put 1048576 8' \
  'PUT of 1 MiB by S3, 8 connections, against our own protocol; the MD5 digest of the body is part of it'
