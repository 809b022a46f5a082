# Prints one row of the table from two files of records: those of tansyd, then those of the other contender.
# Variables: name, goals, against.

FNR == 1 { ++file }
{
  count[file] = FNR
  for (i = 1; i <= NF; ++i) {
    at = index($i, "=")
    value[file, substr($i, 1, at - 1), FNR] = substr($i, at + 1)
  }
}

function sorted_middle(list, size,    i, j, swap) {
  for (i = 2; i <= size; ++i) {
    swap = list[i]
    for (j = i - 1; j >= 1 && list[j] > swap; --j) list[j + 1] = list[j]
    list[j + 1] = swap
  }
  return size % 2 ? list[(size + 1) / 2] : (list[size / 2] + list[size / 2 + 1]) / 2
}

function has(f, key) { return (f, key, 1) in value }

function median(f, key,    list, i) {
  for (i = 1; i <= count[f]; ++i) list[i] = value[f, key, i] + 0
  return sorted_middle(list, count[f])
}

function median_ratio(key,    list, i, size) {
  for (i = 1; i <= count[1] && i <= count[2]; ++i) {
    if (value[2, key, i] + 0 > 0) list[++size] = value[1, key, i] / value[2, key, i]
  }
  return size ? sorted_middle(list, size) : -1
}

function figure(f, key, factor,    m) {
  if (!has(f, key)) return "-"
  m = median(f, key) / factor
  return sprintf(m >= 1000 ? "%.0f" : m >= 10 ? "%.1f" : "%.3f", m)
}

function pair(key, factor) {
  if (!has(1, key) && !has(2, key)) return "-"
  return figure(1, key, factor) " / " figure(2, key, factor)
}

# Splits "field>=1.0" into goal_field, goal_sign and goal_limit. "field/>=1.0" is about the ratio.
function parse(goal) {
  match(goal, /[<>]=/)
  goal_field = substr(goal, 1, RSTART - 1)
  goal_is_ratio = sub(/\/$/, "", goal_field)
  goal_sign = substr(goal, RSTART, 2)
  goal_limit = substr(goal, RSTART + 2) + 0
}

function verdict(number) {
  return (goal_sign == ">=" ? number >= goal_limit : number <= goal_limit) ? "yes" : "NO"
}

END {
  goal_count = split(goals, goal_list, " ")
  parse(goal_count ? goal_list[1] : "rate>=0")
  ratio = median_ratio(goal_field)
  shown = goal_field == "mib" ? "mib" : "rate"
  unit = shown == "mib" ? "MiB/s" : "req/s"
  is_bare = against != "" || !goal_count || goal_limit == 0
  printf "%-22s %7s  %-8s %-4s %19s %-6s %17s %17s %15s %13s\n", name, ratio < 0 ? "-" : sprintf("%.2f", ratio), \
    is_bare ? "-" : goal_sign " " goal_limit, is_bare ? "-" : verdict(ratio), pair(shown, 1), unit, pair("p50", 1000), \
    pair("p99", 1000), pair("cpu", 1), pair("peak", 1)
  for (g = 2; g <= goal_count; ++g) {
    parse(goal_list[g])
    m = goal_is_ratio ? median_ratio(goal_field) : median(1, goal_field)
    printf "  %-20s %7s  %-8s %-4s\n", goal_field, sprintf(m >= 100 ? "%.0f" : "%.2f", m), goal_sign " " goal_limit, verdict(m)
  }
}
