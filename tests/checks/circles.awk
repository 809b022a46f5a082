# Finds circles of units. A unit is a source file together with the header of its name, and with the twins of both in
# posix/ and windows/.
# Input: "file PATH" for every source and header, then "use PATH:INCLUDED" for every quoted include.
# Prints a line for each group of units that reach one another.

function unit_of(path) {
  sub(/\.[a-z]+$/, "", path)
  sub(/\/(posix|windows)\//, "/", path)
  return path
}

# The file that an include means: beside the one that includes it, or below one of the roots.
function resolve(path, included, folder, count, roots, i) {
  folder = path
  sub(/[^\/]*$/, "", folder)
  count = split(folder " platform/ src/ include/ host/ cli/", roots, " ")
  for (i = 1; i <= count; ++i) {
    if ((roots[i] included) in files) return roots[i] included
  }
  return (included in files) ? included : ""
}

function note(user, used) {
  if (user == used || (user, used) in seen) return
  seen[user, used] = 1
  uses[user] = uses[user] " " used
  units[user] = units[used] = 1
}

# Tarjan: units that reach each other are closed together.
function visit(unit, used, count, i, other) {
  order[unit] = low[unit] = ++steps
  stack[++height] = unit
  on_stack[unit] = 1
  count = split(uses[unit], used, " ")
  for (i = 1; i <= count; ++i) {
    other = used[i]
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
  if (size > 1) print size " units include one another in a circle:" group
}

$1 == "file" {
  files[$2] = 1
}

$1 == "use" {
  split($2, parts, ":")
  target = resolve(parts[1], parts[2])
  if (target != "") note(unit_of(parts[1]), unit_of(target))
}

END {
  for (unit in units) {
    if (!(unit in order)) visit(unit)
  }
}
