# Pictures of 200 KB: reads by signed link, uploads as forms. For nginx, plain files and DAV.

picture_bytes=200000
picture_count=64

picture_files() {
  [[ ! -e $disk/form ]] || return 0
  "$tansy_load" content /bench/picture $picture_bytes >"$disk/picture"
  {
    printf -- '--tansy-bench\r\nContent-Disposition: form-data; name="PictureLength"\r\n\r\n%s\r\n' $picture_bytes
    printf -- '--tansy-bench\r\nContent-Disposition: form-data; name="Picture"; filename="p.jpg"\r\n'
    printf 'Content-Type: image/jpeg\r\n\r\n'
    cat "$disk/picture"
    printf '\r\n--tansy-bench--\r\n'
  } >"$disk/form"
  printf 'POST /Quorvane/Picture/Write\n%.0s' $(seq 2000) | "$tansy_load" sign form >"$disk/form-requests"
}

# The address of the HTTP listener that pictures are at.
picture_url() { # CONTENDER
  [[ $1 == nginx ]] && cat "$server/url" || cat "$server/picture_url"
}

# Uploads one form and prints the address of the picture.
upload_form() { # URL
  local line
  line=$(sed -n 2p "$disk/form-requests")
  curl --silent --show-error --fail -H "$(sed -n '1s/\t.*//p' "$disk/form-requests")" \
    -H 'Content-Type: multipart/form-data; boundary=tansy-bench' -H "Authorization: ${line##*$'\t'}" \
    --data-binary "@$disk/form" "$1/Quorvane/Picture/Write" | sed -n 's/.*"PictureUrl":"\([^"]*\)".*/\1/p'
}

prepare_picture_get() { # CONTENDER
  use_server "$1" disk full
  picture_files
  local requests=$server/picture-requests i
  if [[ ! -e $requests ]]; then
    for ((i = 1; i <= picture_count; i++)); do
      if [[ $1 == nginx ]]; then
        curl --silent --show-error --fail -T "$disk/picture" "$(<"$server/url")/bench/picture-$i?in=link"
        echo "GET /bench/picture-$i?in=link"
      else
        echo "GET $(upload_form "$(<"$server/picture_url")")"
      fi
    done | "$tansy_load" sign picture-link >"$requests"
  fi
  check_pictures "$1"
  run_picture_get "$1" warm >/dev/null
}

# Looks at the first picture.
check_pictures() { # CONTENDER
  curl --silent --show-error --fail "$(picture_url "$1")$(sed -n 2p "$server/picture-requests" | cut -f2)" | cmp - "$disk/picture" ||
    fail "the picture came back different"
}

run_picture_get() { # CONTENDER RUN
  use_server "$1" disk full
  measured load "$(picture_url "$1")" "$server/picture-requests" 64 $picture_bytes "$seconds"
}

finish_picture_get() { # CONTENDER
  use_server "$1" disk full
  check_pictures "$1"
}

add_row pic-get nginx 'rate>=1.0' picture_get 'GET of a picture of 200 KB, 64 pictures, 64 connections, signed link, disk'

prepare_picture_put() { # CONTENDER PLACE
  use_server "$1" "$2" fast pictures
  picture_files
}

run_picture_put() { # CONTENDER RUN PLACE
  use_server "$1" "$3" fast pictures
  settle
  if [[ $1 == nginx ]]; then
    measured load "$(<"$server/url")" "$(request_file PUT "picture$2" 1 2000)" 64 $picture_bytes once "$disk/picture"
    curl --silent --show-error --fail "$(<"$server/url")/bench/picture$2-002000" | cmp - "$disk/picture"
  else
    measured load "$(<"$server/picture_url")" "$disk/form-requests" 64 0 once "$disk/form"
    check_form
  fi
}

# Looks whether an uploaded form becomes the picture.
check_form() {
  local path
  path=$(printf 'GET %s\n' "$(upload_form "$(<"$server/picture_url")")" | "$tansy_load" sign picture-link | sed -n 2p | cut -f2)
  curl --silent --show-error --fail "$(<"$server/picture_url")$path" | cmp - "$disk/picture"
}

finish_picture_put() {
  stop_tagged pictures
}

add_row pic-put-mem nginx 'rate>=1.0' 'picture_put memory' \
  'upload of a picture of 200 KB as a form, 64 connections, durability fast, files in memory, 2,000 a run; nginx: DAV PUT'
add_row pic-put nginx 'rate>=1.0' 'picture_put disk' 'the same, files on the disk'
