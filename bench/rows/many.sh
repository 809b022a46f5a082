# Many objects, and many connections.

million=1000000

# A catalogue with 1,000,000 rows. A tansyd makes the schema and one object; SQL then copies that object's row, each copy
# with a name and a location of its own. All of it goes through the schema's own triggers.
fill_catalogue() { # CONTENDER
  local data
  use_server "$1" disk full million
  data=$(<"$server/data")
  store_objects seed 1 4096 1
  stop_server "$server"
  sqlite3 "$data/catalogue.db" >/dev/null <<SQL
PRAGMA synchronous = OFF;
BEGIN;
CREATE TEMP TABLE seed AS SELECT * FROM local_object WHERE name = 'seed-000001';
WITH RECURSIVE numbers(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM numbers WHERE n < $million)
INSERT INTO local_object (id, guid, name, bucket_name, size, update_time, url, is_deleted)
SELECT 1000000 + n, guid, printf('folder-%03d-object-%07d.jpg', n % 1000, n), bucket_name, size, update_time,
       substr(url, 1, length(url) - 10) || printf('%08x', n) || substr(url, -2), 0
FROM numbers, seed;
UPDATE sequences SET next_value = 3000000 WHERE name = 'platform.local_object_id_seq';
COMMIT;
PRAGMA wal_checkpoint(TRUNCATE);
SQL
}

# How much a tansyd takes that has no objects.
empty_kib() { # CONTENDER
  local kib
  use_server "$1" disk full empty
  memory_kib "$server" VmRSS
  stop_server "$server"
}

# Starts a tansyd with the catalogue of 1,000,000 rows, which is made once.
use_million() { # CONTENDER
  local program=$tansyd data
  [[ $1 != against ]] || program=$against
  server=$disk/servers/$1-disk-full-million
  [[ ! -e $server/url ]] || return 0
  [[ -e $server/filled ]] || { fill_catalogue "$1" && touch "$server/filled"; }
  data=$(<"$server/data")
  : >"$server/out"
  touch "$data/bucket-made" # the bucket is there already
  start_tansyd "$program" "$data" full
}

prepare_million() { # CONTENDER
  [[ $1 != select ]] || return 0
  use_million "$1"
  stop_server "$server"
}

run_million() { # CONTENDER RUN
  if [[ $1 == select ]]; then
    use_select
    return
  fi
  local empty begin end rss peak
  empty=$(empty_kib "$1")
  begin=$EPOCHREALTIME
  use_million "$1"
  end=$EPOCHREALTIME
  rss=$(memory_kib "$server" VmRSS)
  peak=$(memory_kib "$server" VmHWM)
  check_bodies "$(<"$server/url")" "$(request_file GET seed 1 1)" 1 4096
  stop_server "$server"
  awk -v t="$(awk -v b="$begin" -v e="$end" 'BEGIN {print (e - b) * 1e6}')" -v empty="$empty" -v rss="$rss" -v peak="$peak" \
    -v objects="$million" 'BEGIN {
      printf "rate=%.4f p50=%.0f bytes=%.1f growth=%.3f peak=%.1f\n", 1e6 / t, t, (rss - empty) * 1024 / objects, peak / rss, peak / 1024
    }'
}

# What the sqlite3 shell needs to select the same rows.
use_select() {
  local begin=$EPOCHREALTIME end rows
  rows=$(sqlite3 -readonly "$(<"$disk/servers/tansyd-disk-full-million/data")/catalogue.db" \
    "SELECT * FROM local_object WHERE is_deleted = 0 AND bucket_name = 'bench';" | wc -l)
  end=$EPOCHREALTIME
  ((rows > million)) || { fail "only $rows rows"; return 1; }
  awk -v b="$begin" -v e="$end" 'BEGIN {printf "rate=%.4f p50=%.0f\n", 1 / (e - b), (e - b) * 1e6}'
}

add_row start-1m select 'p50<=1.2 bytes<=200 growth<=1.2' million \
  'start with 1,000,000 objects until "ready", against a bare SELECT by the sqlite3 shell; resident bytes per object; peak by resident memory'

# Ten busy connections beside 990 that are idle or stalled, against the ten alone.
prepare_held() { # CONTENDER
  use_server "$(beside_server "$1")" disk full held
  store_objects small "$small_keys" $small_bytes 64
  store_objects large1 1 $mib 1
  if [[ ! -e $disk/requests/held ]]; then
    printf '%s\n' 'GET /bench/small-000001' 'PUT /bench/never' 'GET /bench/large1-000001' | "$tansy_load" sign header \
      >"$disk/requests/held"
  fi
}

run_held() { # CONTENDER RUN
  use_server "$(beside_server "$1")" disk full held
  local status=0 holder='' input
  if [[ $1 != alone ]]; then
    rm -f "$disk/held-input"
    mkfifo "$disk/held-input"
    : >"$disk/held.out"
    "$tansy_load" hold "$(<"$server/url")" "$disk/requests/held" 250 250 250 240 <"$disk/held-input" >"$disk/held.out" &
    holder=$!
    exec {input}>"$disk/held-input"
    wait_for_line "$disk/held.out" '^holding 990$' || { fail "the connections are not held"; return 1; }
  fi
  measured wrk_load "$(<"$server/url")" 10 "$seconds" "$(request_file GET small 1 "$small_keys")" cycle || status=1
  if [[ -n $holder ]]; then
    exec {input}>&-
    wait "$holder" || status=1
  fi
  return $status
}

finish_held() { # CONTENDER
  use_server "$(beside_server "$1")" disk full held
  check_some small "$small_keys" $small_bytes
}

add_row conn-1000 alone 'rate>=0.95' held \
  'GET of 4 KiB on 10 connections beside 990 others (250 idle, 250 within a head, 250 within a body, 240 that do not read), against the 10 alone'
