#!/usr/bin/env bash
# Looks whether the scripts of bench/ can be read, and whether its table says what the records say. Starts no server.
# usage: bench.sh SOURCE_FOLDER
set -uo pipefail
cd "$1" || exit 2

failures=0
complain() {
  echo "bench: $1"
  failures=$((failures + 1))
}

for script in bench/*.sh bench/lib/*.sh bench/rows/*.sh; do
  bash -n "$script" || complain "$script cannot be read"
done

# Each row names a function that is there, and a first goal that can be compared.
rows=$(bench/run.sh --list) || complain "--list fails"
(($(wc -l <<<"$rows") > 30)) || complain "--list prints too few rows"
(
  set -euo pipefail
  quick=false seconds=1 runs=1 against=''
  for part in bench/lib/*.sh bench/rows/{small,large,pictures,client,many,s3,rclone,cluster,gateway}.sh; do
    source "$part"
  done
  for name in "${row_names[@]}"; do
    read -r function _ <<<"${row_call[$name]}"
    declare -F "run_$function" >/dev/null || { echo "bench: row $name has no function run_$function"; exit 1; }
    [[ ${row_goals[$name]} =~ ^[a-z0-9]+[\<\>]=[0-9.]+ ]] || { echo "bench: row $name has no goal"; exit 1; }
  done
) || failures=$((failures + 1))

bench/run.sh no-such-row >/dev/null 2>&1 && complain "a row that is not there is accepted"

# The table: medians of each side, and the median of the ratios of neighbouring runs.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
printf '%s\n' 'rate=100 p50=2000 cpu=10' 'rate=300 p50=4000 cpu=30' 'rate=200 p50=3000 cpu=20' >"$work/ours"
printf '%s\n' 'rate=50 p50=1000' 'rate=100 p50=2000' 'rate=400 p50=2000' >"$work/theirs"
row() { # GOALS
  awk -v name=some-row -v goals="$1" -v against='' -f bench/lib/row.awk "$work/ours" "$work/theirs" | tr -s ' '
}
expect() { # TEXT OUTPUT
  [[ $2 == *"$1"* ]] || complain "the table says \"$2\" and not \"$1\""
}
expect 'some-row 2.00 >= 1.5 yes 200.0 / 100.0 req/s 3.000 / 2.000 - 20.0 / - -' "$(row 'rate>=1.5')"
expect 'some-row 2.00 >= 2.5 NO ' "$(row 'rate>=2.5')"
expect 'some-row 2.00 <= 1.9 NO ' "$(row 'p50<=1.9')"
expect ' cpu 20.00 <= 30 yes' "$(row 'rate>=1.5 cpu<=30')"
expect ' p50 2.00 <= 2.5 yes' "$(row 'rate>=1.5 p50/<=2.5')"
expect ' p50 2.00 <= 1.9 NO' "$(row 'rate>=1.5 p50/<=1.9')"
expect ' cpu 20.00 <= 15 NO' "$(row 'rate>=1.5 cpu<=15')"

((failures == 0)) && echo "bench: $(wc -l <<<"$rows") rows can be read"
exit $((failures > 0))
