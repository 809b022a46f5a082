#!/usr/bin/env bash
# Sends a signed request of the object protocol with curl.
#
# usage: scripts/signed-curl.sh [--data DIR] [--content-md5 FILE] METHOD PATH [curl options]
#
#   PATH            as in "/photos/cat.jpg?metadata"; percent-escape what needs it
#   --data DIR      data folder of the tansyd, for its credentials and port (else $TANSY_DATA, else ./tansy-data)
#   --content-md5 F adds the Content-MD5 header that clients of the protocol send, for the body in file F
#
# Credentials come from $TANSY_ACCESS_KEY and $TANSY_SECRET_KEY, else from DIR/tansyd.toml. The server is $TANSY_SERVER,
# else the tansyd that runs on DIR, else http://127.0.0.1:9700. Headers given with curl's -H (Content-Type, Content-MD5,
# x-qvs-...) are signed as they are.
#
# examples:
#   scripts/signed-curl.sh PUT /photos -d '<CreateBucketConfiguration/>'
#   scripts/signed-curl.sh PUT /photos/cat.jpg -T cat.jpg
#   scripts/signed-curl.sh GET /photos/cat.jpg -o copy.jpg
#   scripts/signed-curl.sh GET '/photos/cat.jpg?metadata' -i
set -euo pipefail
export LC_ALL=C

fail() {
  echo "signed-curl: $1" >&2
  exit 2
}

# Value of a key in the [credentials] table of a settings file. The text never leaves this shell and awk's standard streams.
setting() {
  awk -v key="$2" '
    /^[ \t]*\[/ { inside = ($0 ~ /^[ \t]*\[[ \t]*credentials[ \t]*\]/) }
    inside && $0 ~ "^[ \t]*" key "[ \t]*=" {
      sub(/^[^=]*=[ \t]*/, "")
      quote = substr($0, 1, 1)
      if (quote != "\"" && quote != "\047") exit
      text = substr($0, 2)
      value = ""
      for (i = 1; i <= length(text); i++) {
        c = substr(text, i, 1)
        if (c == quote) break
        if (c == "\\" && quote == "\"") { i++; c = substr(text, i, 1) }
        value = value c
      }
      printf "%s", value
      exit
    }' "$1"
}

to_hex() {
  od -An -v -tx1 | tr -d ' \n'
}

# Writes hexadecimal digits as bytes, with the shell's own printf: no other process sees them on its command line.
from_hex() {
  local hex=$1 escaped='' i
  for ((i = 0; i < ${#hex}; i += 2)); do
    escaped+="\\x${hex:i:2}"
  done
  printf "$escaped"
}

# The 64-byte key block of HMAC combined with a byte, as hexadecimal digits.
padded_key() {
  local hex=$1 pad=$2 out='' i byte
  for ((i = 0; i < 128; i += 2)); do
    byte=${hex:i:2}
    printf -v byte '%02x' $((16#${byte:-00} ^ pad))
    out+=$byte
  done
  printf '%s' "$out"
}

sha1() {
  openssl dgst -sha1 -binary
}

# Base64 of the HMAC-SHA1 of standard input. openssl would take the key on its command line only, where every user of
# the machine can read it, so the two rounds are done here.
hmac_sha1() {
  local key_hex inner_hex
  key_hex=$(printf '%s' "$1" | to_hex)
  if ((${#key_hex} > 128)); then
    key_hex=$(printf '%s' "$1" | sha1 | to_hex)
  fi
  inner_hex=$({ from_hex "$(padded_key "$key_hex" 0x36)"; cat; } | sha1 | to_hex)
  { from_hex "$(padded_key "$key_hex" 0x5c)"; from_hex "$inner_hex"; } | sha1 | openssl base64 -A
}

data=${TANSY_DATA:-./tansy-data}
md5_file=''
while (($# > 0)); do
  case $1 in
    --data) data=${2:?signed-curl: --data needs a folder}; shift 2 ;;
    --content-md5) md5_file=${2:?signed-curl: --content-md5 needs a file}; shift 2 ;;
    -h | --help) sed -n '2,/^set -/{/^set -/d;s/^# \{0,1\}//;p}' "${BASH_SOURCE[0]}"; exit 0 ;;
    *) break ;;
  esac
done
(($# >= 2)) || fail "usage: signed-curl.sh [--data DIR] [--content-md5 FILE] METHOD PATH [curl options]"
method=$1
path=$2
shift 2
[[ $path == /* ]] || fail "PATH must begin with \"/\": $path"

access_key=${TANSY_ACCESS_KEY:-}
secret_key=${TANSY_SECRET_KEY:-}
if [[ -z $access_key || -z $secret_key ]]; then
  [[ -r $data/tansyd.toml ]] || fail "no credentials: set TANSY_ACCESS_KEY and TANSY_SECRET_KEY, or name the data folder with --data (cannot read $data/tansyd.toml)"
  access_key=$(setting "$data/tansyd.toml" access_key)
  secret_key=$(setting "$data/tansyd.toml" secret_key)
  [[ -n $access_key && -n $secret_key ]] || fail "$data/tansyd.toml holds no [credentials]"
fi

server=${TANSY_SERVER:-}
if [[ -z $server ]]; then
  port=9700
  host=127.0.0.1
  if [[ -r $data/listening.toml ]]; then
    address=$(sed -n 's/^address = "\([0-9A-Fa-f.:]*\)"$/\1/p' "$data/listening.toml")
    [[ $address == *:* ]] && address="[$address]"
    host=${address:-$host}
    port=$(sed -n 's/^object-port = \([0-9]\{1,5\}\)$/\1/p' "$data/listening.toml")
  fi
  server=http://$host:${port:-9700}
fi

# What of the headers takes part in the signature.
content_md5=''
content_type=''
has_content_type=false
extension_lines=()
sign_header() {
  local name=${1%%:*} value=${1#*:}
  [[ $1 == *:* ]] || return 0
  value=${value#"${value%%[![:space:]]*}"}
  value=${value%"${value##*[![:space:]]}"}
  case ${name,,} in
    content-md5) content_md5=$value ;;
    content-type) content_type=$value; has_content_type=true ;;
  esac
  # Compared as the server does: case counts.
  if [[ $name == *x-qvs* ]]; then
    extension_lines+=("$name"$'\t'"$value")
  fi
}
arguments=("$@")
for ((i = 0; i < ${#arguments[@]}; i++)); do
  case ${arguments[i]} in
    -H | --header) sign_header "${arguments[i + 1]:-}"; i=$((i + 1)) ;;
    -H*) sign_header "${arguments[i]#-H}" ;;
  esac
done

headers=("Date: $(date -u '+%a, %e %b %Y %H:%M:%S GMT')")
if [[ -n $md5_file ]]; then
  # Clients send the Base64 of the digest's 32 hexadecimal digits.
  content_md5=$(openssl dgst -md5 -r <"$md5_file" | cut -c1-32 | tr -d '\n' | openssl base64 -A)
  headers+=("Content-MD5: $content_md5")
fi
if ! $has_content_type; then
  headers+=("Content-Type:") # keeps curl from adding one that is not signed
fi
extension_text=$'\n'
if ((${#extension_lines[@]} > 0)); then
  extension_text=$(printf '%s\n' "${extension_lines[@]}" | sort -t $'\t' -k1,1 | cut -f2-)$'\n'
fi

signature=$(printf '%s\n%s\n%s\n%s\n%s%s' "$method" "$content_md5" "$content_type" "${headers[0]#Date: }" \
  "$extension_text" "$path" | hmac_sha1 "$secret_key")
headers+=("Authorization: quorvane $access_key:$signature")

method_options=(-X "$method")
if [[ $method == HEAD ]]; then
  method_options=(-I)
fi
exec curl --silent --show-error --globoff --path-as-is "${method_options[@]}" \
  -H @<(printf '%s\n' "${headers[@]}") "$@" "$server$path"
