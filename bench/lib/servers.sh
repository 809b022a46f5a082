# Starts servers and remembers them in files below $disk/servers, because each row runs in a shell of its own.
# A server's folder there holds: pid, url, https_url, picture_url, s3_url, data (the folder of its files).

# Prints a port below the range that the system gives out by itself, and with it the four ports behind it.
free_ports() {
  local port each
  for _ in {1..200}; do
    port=$((20000 + RANDOM % 2400 * 5))
    for each in 0 1 2 3 4; do
      ! (exec 3<>"/dev/tcp/127.0.0.1/$((port + each))") 2>/dev/null || continue 2
    done
    echo "$port"
    return
  done
  fail "no free ports"
}

place_folder() { # disk|memory
  case $1 in
    disk | postgres | rados | postgres-rados) echo "$disk" ;;
    memory) echo "$memory" ;;
    *) fail "no such place: $1" ;;
  esac
}

# Makes sure that a server runs, and sets $server to the folder that describes it.
#   CONTENDER    tansyd, against, nginx, webdav (nginx with what rclone asks for), gateway (Ceph's), or plain: the tansyd of a row
#                beside itself on its own disk
#   PLACE        disk or memory; of tansyd also postgres, rados or postgres-rados, its rows and bytes then being there
#   DURABILITY   full or fast; nginx has one only
#   TAG          rows with different tags have servers of their own
use_server() { # CONTENDER PLACE DURABILITY [TAG]
  if [[ $1 == plain ]]; then
    use_server tansyd disk "${@:3}"
    return
  fi
  server=$disk/servers/$1-$2-$3-${4:-shared}
  [[ $1 != nginx ]] || server=$disk/servers/nginx-$2-${4:-shared}
  [[ ! -e $server/url ]] || return 0
  rm -rf "$server"
  mkdir -p "$server"
  local data backend
  data=$(place_folder "$2")/data-$(basename "$server")
  rm -rf "$data"
  echo "$data" >"$server/data"
  choose_backend "$2"
  case $1 in
    tansyd) start_tansyd "$tansyd" "$data" "$3" "${backend[@]}" ;;
    against) start_tansyd "$against" "$data" "$3" "${backend[@]}" ;;
    nginx) start_nginx "$data" ;;
    webdav) start_nginx "$data" webdav ;;
    gateway) start_gateway ;;
    *) fail "no such server: $1" ;;
  esac
}

# tansyd runs as it comes; only ports and folder are said, and durability where a row is about it.
start_tansyd() { # PROGRAM DATA DURABILITY [OPTION...]
  local port durability=()
  port=$(free_ports)
  [[ $3 == full ]] || durability=(--durability "$3")
  "$1" --data "$2" --listen 127.0.0.1 --object-port "$port" --object-https-port $((port + 1)) --picture-port $((port + 2)) \
    --picture-https-port $((port + 3)) --s3-port $((port + 4)) --s3-https-port 0 "${durability[@]}" "${@:4}" \
    >"$server/out" 2>"$server/log" </dev/null &
  echo $! >"$server/pid"
  disown
  wait_for_line "$server/out" '^tansyd ready' || { tail -5 "$server/log" >&2; fail "tansyd does not start: $1"; return 1; }
  echo "http://127.0.0.1:$((port + 2))" >"$server/picture_url"
  echo "https://127.0.0.1:$((port + 1))" >"$server/https_url"
  echo "http://127.0.0.1:$((port + 4))" >"$server/s3_url"
  [[ -e $2/bucket-made ]] || make_bucket "http://127.0.0.1:$port"
  echo "http://127.0.0.1:$port" >"$server/url"
}

make_bucket() { # URL
  TANSY_SERVER=$1 scripts/signed-curl.sh PUT /bench --fail -o /dev/null --data '<CreateBucketConfiguration/>'
}

wait_for_line() { # FILE PATTERN
  for _ in {1..600}; do
    ! grep -qs "$2" "$1" || return 0
    sleep 0.05
  done
  return 1
}

# nginx as its own users tune it. With "webdav" it also lists folders and makes them, which rclone asks for.
start_nginx() { # DATA [webdav]
  local port user='' module='' methods='dav_methods PUT DELETE;'
  if [[ -n ${2:-} ]]; then
    module='load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;'
    methods='dav_methods PUT DELETE MKCOL COPY MOVE; dav_ext_methods PROPFIND OPTIONS; create_full_put_path on;'
  fi
  port=$(free_ports)
  mkdir -p "$1/files/bench" "$1/temporary"
  ((EUID != 0)) || user='user root;'
  certificate "$disk/nginx-certificate"
  cat >"$server/nginx.conf" <<CONF
$module
$user
worker_processes auto;
pid $server/nginx.pid;
error_log $server/nginx.err;
worker_rlimit_nofile 65536;
events { worker_connections 8192; multi_accept on; }
http {
  default_type application/octet-stream;
  access_log off;
  sendfile on;
  sendfile_max_chunk 2m;
  tcp_nopush on;
  tcp_nodelay on;
  keepalive_timeout 75s;
  keepalive_requests 100000000;
  open_file_cache max=100000 inactive=60s;
  open_file_cache_valid 60s;
  open_file_cache_min_uses 1;
  client_body_buffer_size 128k;
  client_max_body_size 0;
  client_body_temp_path $1/temporary;
  proxy_temp_path $1/temporary; fastcgi_temp_path $1/temporary; uwsgi_temp_path $1/temporary; scgi_temp_path $1/temporary;
  ssl_certificate $disk/nginx-certificate.crt;
  ssl_certificate_key $disk/nginx-certificate.key;
  ssl_protocols TLSv1.2 TLSv1.3;
  ssl_session_cache shared:tls:10m;
  ssl_buffer_size 16k;
  server {
    listen 127.0.0.1:$port reuseport backlog=4096;
    listen 127.0.0.1:$((port + 1)) ssl reuseport backlog=4096;
    root $1/files;
    location / { $methods }
  }
}
CONF
  nginx -c "$server/nginx.conf" -e "$server/nginx.err" -g 'daemon off;' >"$server/out" 2>&1 </dev/null &
  echo $! >"$server/pid"
  disown
  for _ in {1..200}; do
    [[ ! -e $server/nginx.pid ]] || break
    sleep 0.05
  done
  [[ -e $server/nginx.pid ]] || { tail -5 "$server/nginx.err" "$server/out" >&2; fail "nginx does not start"; return 1; }
  echo "https://127.0.0.1:$((port + 1))" >"$server/https_url"
  echo "http://127.0.0.1:$port" >"$server/url"
}

# A certificate of the kind that tansyd makes for itself: P-256, signed by itself.
certificate() { # PATH
  [[ -e $1.crt ]] || openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 3650 -subj /CN=localhost \
    -keyout "$1.key" -out "$1.crt" 2>/dev/null
}

# The processes that serve: tansyd's own, or nginx and its workers.
server_pids() { # SERVER
  local pid
  pid=$(cat "$1/pid")
  echo "$pid"
  cat "/proc/$pid/task/$pid/children" 2>/dev/null || true
}

# Milliseconds of processor time that the server has used so far.
cpu_ms() { # SERVER
  local pid total=0 fields ticks
  ticks=$(getconf CLK_TCK)
  for pid in $(server_pids "$1"); do
    fields=$(<"/proc/$pid/stat")
    read -r -a fields <<<"${fields##*) }"
    total=$((total + fields[11] + fields[12]))
  done
  echo $((total * 1000 / ticks))
}

reset_peak() { # SERVER
  local pid
  for pid in $(server_pids "$1"); do
    echo 5 >"/proc/$pid/clear_refs"
  done
}

memory_kib() { # SERVER VmHWM|VmRSS
  local pid total=0
  for pid in $(server_pids "$1"); do
    total=$((total + $(awk -v field="$2:" '$1 == field {print $2}' "/proc/$pid/status")))
  done
  echo "$total"
}

# Ends a server; its files stay unless they are in memory. On a disk they stay to the end of the run, because ext4 is slow to
# make files for some minutes after many were removed.
stop_server() { # SERVER
  local pid
  pid=$(cat "$1/pid" 2>/dev/null) || return 0
  kill "$pid" 2>/dev/null || true
  for _ in {1..1200}; do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.05
  done
  ! kill -0 "$pid" 2>/dev/null || kill -9 "$pid"
  [[ $(cat "$1/data") != "$memory"/* ]] || rm -rf "$(cat "$1/data")"
  rm -f "$1/url" "$1/pid"
}

stop_all_servers() {
  local each
  for each in "$disk"/servers/*; do
    [[ ! -e $each/pid ]] || stop_server "$each"
  done
}

# Ends the servers that a row had for itself.
stop_tagged() { # TAG
  local each
  for each in "$disk"/servers/*-"$1"; do
    [[ ! -e $each/pid ]] || stop_server "$each"
  done
}

# The same, and gives the room of their files back; for rows that leave few files.
drop_tagged() { # TAG
  local each
  stop_tagged "$1"
  for each in "$disk"/servers/*-"$1"; do
    [[ ! -e $each/data ]] || rm -rf "$(cat "$each/data")"
  done
}
