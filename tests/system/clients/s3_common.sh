# What the scripts for the S3 clients share. They run in an empty folder, with what tansy needs in the environment, and end
# with "done" on standard output; anything that is not as it should be ends them with another code.
# usage: s3_NAME.sh TANSY
set -euo pipefail
export PATH=/usr/bin:/bin
# Only what tansy prints counts, and nothing that this machine has set for these programs.
unset "${!AWS_@}" "${!RCLONE_@}" "${!RESTIC_@}" REQUESTS_CA_BUNDLE CURL_CA_BUNDLE SSL_CERT_FILE SSL_CERT_DIR
tansy=$1

fail() {
  echo "$0: $*" >&2
  exit 1
}

# expect TEXT COMMAND...: the command succeeds and prints exactly this.
expect() {
  local expected=$1 printed
  shift
  printed=$("$@") || fail "failed: $*"
  [[ "$printed" == "$expected" ]] || fail "'$*' printed '$printed' and not '$expected'"
}

# expect_lines NUMBER COMMAND...: the command succeeds and prints so many lines.
expect_lines() {
  local expected=$1 lines
  shift
  lines=$("$@" | wc -l) || fail "failed: $*"
  [[ "$lines" == "$expected" ]] || fail "'$*' printed $lines lines and not $expected"
}

# refuse COMMAND...: the command fails.
refuse() {
  if "$@" >/dev/null 2>&1; then
    fail "succeeded: $*"
  fi
}

# Files of the kinds that make a difference: a name with blanks and signs, an empty file, one that goes in parts.
odd_name='a b+ü&%.txt'
make_files() {
  mkdir -p tree/sub
  printf 'hello' >"tree/sub/$odd_name"
  : >tree/empty
  head -c 300000 /dev/urandom >tree/sub/middle
  head -c 17000000 /dev/urandom >big
}
