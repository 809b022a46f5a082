# Where a server's processor time goes (bench/run.sh --profile): samples of its stacks during the last run of each contender, as
# microseconds per request of system calls, and of libraries outside of them. Sampling costs time itself, so the ratios of
# such runs do not count.

begin_profile() {
  $profile || return 0
  local pids
  # shellcheck disable=SC2046
  printf -v pids '%s,' $(server_pids "$server")
  rm -f "$disk/profile.data"
  perf record --quiet -F 4999 -g -o "$disk/profile.data" -p "${pids%,}" >/dev/null 2>&1 &
  profiler=$!
  # Some rows last shorter than the start of perf.
  until [[ -e $disk/profile.data ]]; do sleep 0.05; done
  sleep 0.3
}

end_profile() {
  $profile || return 0
  kill -INT "$profiler" 2>/dev/null || true
  wait "$profiler" || true
  # A stack is some lines, its innermost place first, up to an empty line. A call of the kernel is named by the function that made it.
  perf script -i "$disk/profile.data" -F ip,sym,dso 2>/dev/null | awk '
    NF == 0 {
      if (part != "") {
        ++count[part]
        ++samples
      }
      part = ""
      next
    }
    part == "" && /kernel.kallsyms/ {part = "interrupts"}
    part == "" {
      part = $NF
      gsub(/^.*\/|[()]/, "", part)
      sub(/[.]so.*/, "", part)
    }
    part == "interrupts" && !/kernel.kallsyms/ {
      part = $2
      sub(/^_*(GI_)?_*(libc_)?/, "", part)
      sub(/64$/, "", part)
      part = part "()"
    }
    END { for (name in count) printf "%.4f %s\n", count[name] / samples, name }' >"$disk/profile.shares"
}

# The parts of which one contender spends a fiftieth or more. A program that is no server, such as dd, has none.
print_profile() { # NAME
  $profile || return 0
  local other=${row_other[$1]} results=$disk/results/$1
  [[ -z $against ]] || other=against
  [[ -s $results/profile-tansyd ]] || return 0
  touch "$results/profile-$other"
  awk -v ours="$(cpu_of "$results/tansyd")" -v theirs="$(cpu_of "$results/$other")" '
    FNR == 1 {file = FILENAME == ARGV[1] ? 1 : 2}
    {share[file, substr($0, index($0, " ") + 1)] = $1; names[substr($0, index($0, " ") + 1)]}
    END {
      for (name in names) {
        if (share[1, name] < 0.02 && share[2, name] < 0.02) {
          rest[1] += share[1, name]; rest[2] += share[2, name]
          continue
        }
        printf "  %-30s %8.2f / %8.2f us\n", name, ours * share[1, name], theirs * share[2, name]
      }
      printf "  %-30s %8.2f / %8.2f us\n", "smaller parts", ours * rest[1], theirs * rest[2]
    }' "$results/profile-tansyd" "$results/profile-$other" | sort -t/ -k1.33,1.41nr
}

# Processor time per request of the last run.
cpu_of() { # RECORDS
  field cpu "$(tail -1 "$1")" || echo 0
}
