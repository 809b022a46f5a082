#!/usr/bin/env bash
# Runs a GoogleTest program under Wine, without the cases that a list names. The list has a line per case, or group of
# cases: a name as in --gtest_filter, a blank, and the reason, which is printed. A name that fits no case is an error.
# Filters that follow name cases that need PostgreSQL or Ceph.
# usage: run.sh PROGRAM LIST [FILTER...]
set -euo pipefail

program=$1
list=$2
shift 2
wine=$(dirname "${BASH_SOURCE[0]}")/../../scripts/wine.sh

left_out=
leave_out() {
  local cases
  cases=$("$wine" "$program" --gtest_list_tests --gtest_filter="$1" | grep -c '^  ' || true)
  if ((cases == 0)); then
    echo "$list names $1, which no case of $(basename "$program") is called" >&2
    exit 1
  fi
  echo "left out: $1 ($cases): $2"
  left_out+=":$1"
}

for name in "$@"; do
  leave_out "$name" "needs PostgreSQL or Ceph"
done
if [[ -e $list ]]; then
  while read -r name reason; do
    if [[ -n $name && $name != '#'* ]]; then
      leave_out "$name" "$reason"
    fi
  done <"$list"
fi
exec "$wine" "$program" --gtest_brief=1 --gtest_filter="-${left_out#:}"
