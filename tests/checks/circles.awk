# Finds circles of units among include lines. A unit is a source file together with the header of its name.
# Input: lines "UNIT USED_UNIT". Prints every unit that lies on a circle, with those that it shares it with.

function visit(unit, used, count, index_, other) {
  order[unit] = low[unit] = ++steps
  stack[++height] = unit
  on_stack[unit] = 1
  count = split(uses[unit], used, " ")
  for (index_ = 1; index_ <= count; ++index_) {
    other = used[index_]
    if (!(other in order)) {
      visit(other)
      if (low[other] < low[unit]) low[unit] = low[other]
    } else if (on_stack[other] && order[other] < low[unit]) {
      low[unit] = order[other]
    }
  }
  if (low[unit] == order[unit]) close_group(unit)
}

# The units above `root` on the stack reach each other; one alone is no circle.
function close_group(root, group, size, unit) {
  do {
    unit = stack[height--]
    on_stack[unit] = 0
    group = group " " unit
    ++size
  } while (unit != root)
  if (size > 1) print size " units:" group
}

$1 != $2 && !seen[$1, $2]++ {
  uses[$1] = uses[$1] " " $2
  units[$1] = units[$2] = 1
}

END {
  for (unit in units) {
    if (!(unit in order)) visit(unit)
  }
}
