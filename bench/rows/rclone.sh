# rclone that copies many small files, by S3 to tansyd and by WebDAV to nginx. Files are in memory and durability is fast, because
# nginx does not wait for the disk either.

rclone_files=2000
# By WebDAV, rclone waits ten milliseconds before each request, so that it takes a minute for 2,000 files to any server.
webdav_files=400
rclone_bytes=65536

files_of() { # CONTENDER
  [[ $1 == webdav ]] && echo "$webdav_files" || echo "$rclone_files"
}

rclone_server() { # CONTENDER
  use_server "$1" memory fast rclone
}

# Each server's settings file of rclone; the remote is called "bench".
write_rclone_settings() { # CONTENDER
  if [[ $1 == webdav ]]; then
    printf '[bench]\ntype = webdav\nvendor = other\nurl = %s\n' "$(<"$server/url")"
  else
    printf '[bench]\ntype = s3\nprovider = Other\nendpoint = %s\naccess_key_id = %s\nsecret_access_key = %s\n' \
      "$(<"$server/s3_url")" "$TANSY_ACCESS_KEY" "$TANSY_SECRET_KEY"
  fi >"$server/rclone.conf"
}

# What the user has set for AWS means other servers.
with_rclone() { # ARGUMENT...
  env -u AWS_CA_BUNDLE rclone --config "$server/rclone.conf" "$@"
}

prepare_rclone() { # CONTENDER
  rclone_server "$1"
  write_rclone_settings "$1"
  local files
  files=$(files_of "$1")
  if [[ ! -e $memory/rclone-$files ]]; then
    mkdir "$memory/rclone-$files"
    "$tansy_load" content /bench/many $((rclone_bytes * files)) |
      split -b $rclone_bytes -a 4 -d - "$memory/rclone-$files/file-"
  fi
  run_rclone "$1" warm >/dev/null
}

run_rclone() { # CONTENDER RUN
  local to=bench:bench/run-$2 line files from
  files=$(files_of "$1")
  from=$memory/rclone-$files
  rclone_server "$1"
  line=$(measured_command "$files" with_rclone copy "$from" "$to") || return 1
  echo "$line"
  (($(with_rclone lsf "$to" | wc -l) == files)) || { fail "not all files came"; return 1; }
  with_rclone cat "$to/file-0123" | cmp - "$from/file-0123"
}

# Runs a command that moves so many files, and prints its record.
measured_command() { # FILES COMMAND...
  local line before after
  reset_peak "$server"
  before=$(cpu_ms "$server")
  line=$(timed "$1" $(($1 * rclone_bytes)) "${@:2}") || return 1
  after=$(cpu_ms "$server")
  awk -v line="$line" -v cpu=$((after - before)) -v files="$1" -v peak="$(memory_kib "$server" VmHWM)" \
    'BEGIN {printf "%s cpu=%.1f peak=%.1f\n", line, cpu * 1000 / files, peak / 1024}'
}

finish_rclone() {
  stop_tagged rclone
}

add_row rclone-copy webdav 'rate>=1.0 cpu/<=1.0' rclone \
  'rclone copy of 2,000 files of 64 KiB by S3, files in memory, durability fast, against nginx by WebDAV (400 files); files a second'
row_needs rclone-copy rclone libnginx-mod-http-dav-ext
