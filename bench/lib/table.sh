# The rows that there are, how one is measured, and the table.
#
# A row has a name, the other contender that tansyd is measured against, its goals, the function that measures it with
# arguments, and a text. Function F brings prepare_F CONTENDER ARGUMENTS... (may be missing), run_F CONTENDER RUN
# ARGUMENTS..., which prints one record, and finish_F CONTENDER ARGUMENTS... (may be missing).
#
# The first goal is about the ratio of a field, that of tansyd divided by that of the other; the ratio is taken for each
# pair of neighbouring runs, and the median counts. Further goals are about tansyd's own median of a field, or with "FIELD/" about
# another ratio.

row_names=()
declare -A row_other row_goals row_call row_text row_packages

add_row() { # NAME OTHER GOALS CALL TEXT
  row_names+=("$1")
  row_other[$1]=$2
  row_goals[$1]=$3
  row_call[$1]=$4
  row_text[$1]=$5
}

# Packages of Debian that a row needs beside those of all rows.
row_needs() { # NAME PACKAGE...
  row_packages[$1]=${*:2}
}

list_rows() {
  local name
  for name in "${row_names[@]}"; do
    printf '%-22s %s (against %s; %s)\n' "$name" "${row_text[$name]}" "${row_other[$name]}" "${row_goals[$name]:-no goal}"
  done
}

# Measures a row: both contenders in turns. Runs in a shell of its own with "set -e".
measure_row() { # NAME
  local name=$1 other=${row_other[$1]} function arguments contender run records=$disk/results/$1
  read -r function arguments <<<"${row_call[$name]}"
  # shellcheck disable=SC2206
  arguments=($arguments)
  [[ -z $against ]] || other=against
  rm -rf "$records"
  mkdir -p "$records"
  for contender in tansyd "$other"; do
    if declare -F "prepare_$function" >/dev/null; then
      "prepare_$function" "$contender" "${arguments[@]}"
    fi
  done
  for ((run = 1; run <= runs; run++)); do
    for contender in tansyd "$other"; do
      "run_$function" "$contender" "$run" "${arguments[@]}" >"$records/last"
      cat "$records/last" >>"$records/$contender"
      ! $profile || [[ ! -e $disk/profile.shares ]] || mv "$disk/profile.shares" "$records/profile-$contender"
    done
  done
  for contender in tansyd "$other"; do
    if declare -F "finish_$function" >/dev/null; then
      "finish_$function" "$contender" "${arguments[@]}"
    fi
  done
}

table_head() {
  printf '%-22s %7s  %-8s %-4s %19s %-6s %17s %17s %15s %13s\n' row ratio goal met 'tansyd / other' unit 'p50 ms' 'p99 ms' \
    'cpu us' 'peak MiB'
}

print_row() { # NAME
  local other=${row_other[$1]}
  [[ -z $against ]] || other=against
  awk -v name="$1" -v goals="${row_goals[$1]}" -v against="$against" -f bench/lib/row.awk \
    "$disk/results/$1/tansyd" "$disk/results/$1/$other"
}
