#!/usr/bin/env bash
# Compares what the module exports with the list of its documented entry points.
# usage: exported_symbols.sh LIBRARY ALLOW_LIST
set -euo pipefail

# The names of the standard library's templates, as one writes them.
shorten='s/std::__cxx11::basic_string<char, std::char_traits<char>, std::allocator<char> >/std::string/g
s/std::map<([^<>]+), ([^<>]+), std::less<[^<>]+>, std::allocator<std::pair<[^<>]+> > >/std::map<\1, \2>/g
s/std::set<([^<>]+), std::less<[^<>]+>, std::allocator<[^<>]+> >/std::set<\1>/g
s/std::vector<([^<>]+), std::allocator<[^<>]+> >/std::vector<\1>/g
s/Tansy::CloudStorage:://g'

# Names with their arguments. On Windows a number of 64 bits is written in another way.
exported_names() {
  if [[ $1 == *.dll ]]; then
    x86_64-w64-mingw32-objdump --private-headers "$1" |
      awk '/^\[Ordinal\/Name Pointer\] Table/ { reading = 1; next } reading && NF == 0 { reading = 0 } reading { print $NF }' |
      x86_64-w64-mingw32-c++filt | sed 's/unsigned long long/unsigned long/g'
  else
    nm --dynamic --defined-only --demangle "$1" | cut -d' ' -f3-
  fi
}
actual=$(exported_names "$1" | sed -E "$shorten" | LC_ALL=C sort -u)
expected=$(sed -E '/^(#|$)/d' "$2" | LC_ALL=C sort -u)
if [[ "$actual" != "$expected" ]]; then
  echo "exported symbols differ from the list ('<' listed only, '>' exported only):"
  diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi
echo "exported symbols: $(echo "$actual" | wc -l), as listed"
