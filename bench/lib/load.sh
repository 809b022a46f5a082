# Loads servers, looks whether they answer rightly, and turns what the load tools print into records.
#
# A record is one line of NAME=VALUE: rate (requests a second), mib (MiB a second), p50 and p99 (microseconds), cpu
# (microseconds of the server's processor time per request), peak (MiB of its memory). Rows may add fields of their own.

field() { # NAME LINE
  local word
  for word in $2; do
    [[ $word != "$1="* ]] || { echo "${word#*=}"; return; }
  done
  return 1
}

# Signs lines METHOD PATH of standard input for $server's S3 port. That signature covers the port and the time, so each run signs
# its own. Prints the name of the file.
s3_signed() { # NAME
  local url file=$server/requests-$1
  url=$(<"$server/s3_url")
  "$tansy_load" sign s3 "${url#http://}" >"$file" || return 1
  echo "$file"
}

# The same as request_file by the S3 protocol.
s3_requests() { # METHOD PREFIX FIRST LAST
  seq -f "$1 /bench/$2-%06.0f" "$3" "$4" | s3_signed "$1-$2-$3-$4"
}

# Signed requests METHOD /bench/PREFIX-NNNNNN, FIRST to LAST, in a file that is made once. Prints its name.
request_file() { # METHOD PREFIX FIRST LAST [header|link]
  local file=$disk/requests/$1-$2-$3-$4-${5:-header}
  if [[ ! -e $file ]]; then
    seq -f "$1 /bench/$2-%06.0f" "$3" "$4" | "$tansy_load" sign "${5:-header}" >"$file.new" || return 1
    mv "$file.new" "$file"
  fi
  echo "$file"
}

# Answers of one load tool, as a record. Fails when there was any error.
record() { # LINE CPU_MS PEAK_KIB
  local errors
  errors=$(field errors "$1") || { fail "the load tool printed no figures"; return 1; }
  ((errors == 0)) || { fail "$errors requests failed"; return 1; }
  awk -v line="$1" -v cpu="$2" -v peak="$3" 'BEGIN {
    count = split(line, words, " ")
    for (i = 1; i <= count; ++i) { split(words[i], pair, "="); value[pair[1]] = pair[2] }
    if (value["requests"] == 0) exit 1
    printf "rate=%.2f mib=%.2f p50=%s p99=%s", value["requests"] / value["seconds"], \
      value["bytes"] / 1048576 / value["seconds"], value["p50"], value["p99"]
    if (cpu != "-") printf " cpu=%.2f", cpu * 1000 / value["requests"]
    if (peak != "-") printf " peak=%.1f", peak / 1024
    printf "\n"
  }' || fail "no request was answered"
}

# Runs a load tool against $server and prints the record.
measured() { # COMMAND...
  local before after line
  reset_peak "$server"
  begin_profile
  before=$(cpu_ms "$server")
  line=$("$@") || { fail "failed: $*"; return 1; }
  after=$(cpu_ms "$server")
  end_profile
  same_security "$line" || return 1
  record "$line" $((after - before)) "$(memory_kib "$server" VmHWM)"
}

# Over HTTPS all servers of a run must have agreed on the same version and cipher.
same_security() { # LINE
  local now file=$disk/security
  now=$(field tls "$1") && [[ $now != plain ]] || return 0
  [[ -e $file ]] || echo "$now" >"$file"
  [[ $now == "$(<"$file")" ]] || fail "this server uses $now, another one $(<"$file")"
}

# wrk with requests that were signed before. Prints the line of bench/wrk/requests.lua.
wrk_load() { # URL CONNECTIONS SECONDS REQUESTS once|cycle [BODY_FILE [named]]
  local threads=2 lines output=$disk/wrk.$BASHPID.out
  (($2 > 1)) || threads=1
  wrk -t"$threads" -c"$2" -d"$3s" --timeout 20s -s bench/wrk/requests.lua "$1" -- "$4" "$5" "$threads" "${@:6}" \
    >"$output" || { cat "$output" >&2; return 1; }
  lines=$(grep '^requests=' "$output") || { cat "$output" >&2; return 1; }
  if (($(field errors "$lines") > 0)); then
    cat "$output" >&2
  fi
  rm -f "$output"
  echo "$lines"
}

# Sends each request of a file once, or over and over for some seconds; "verify" compares every byte that comes.
load() { # URL REQUESTS CONNECTIONS BYTES [SECONDS|once|verify]
  "$tansy_load" run "$@"
}

# Fails unless each of these requests brings the right bytes.
check_bodies() { # URL REQUESTS CONNECTIONS BYTES
  local line
  line=$("$tansy_load" run "$1" "$2" "$3" "$4" verify) || return 1
  (($(field errors "$line") == 0)) || fail "wrong answers from $1"
}

# Stores objects PREFIX-000001 to PREFIX-COUNT once per server, and looks whether some of them come back right.
store_objects() { # PREFIX COUNT BYTES CONNECTIONS
  local done_file=$server/stored-$1 line
  if [[ ! -e $done_file ]]; then
    line=$(load "$(<"$server/url")" "$(request_file PUT "$1" 1 "$2")" "$4" "$3") || return 1
    (($(field errors "$line") == 0)) || { fail "storing objects failed"; return 1; }
    touch "$done_file"
  fi
  check_some "$1" "$2" "$3"
}

# Looks at the first objects and the last one.
check_some() { # PREFIX COUNT BYTES
  local first=$(($2 < 3 ? $2 : 3))
  check_bodies "$(<"$server/url")" "$(request_file GET "$1" 1 "$first")" 1 "$3" &&
    check_bodies "$(<"$server/url")" "$(request_file GET "$1" "$2" "$2")" 1 "$3"
}
