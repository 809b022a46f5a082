#!/usr/bin/env bash
# Fails on a library that shows functions or variables of Boost to others: another version of Boost, which a library that
# is loaded later brings along, would be mixed up with them.
# usage: hidden_boost.sh LIBRARY...
set -euo pipefail

for library in "$@"; do
  # An empty list of exports would say nothing.
  exports=$(nm --dynamic --defined-only "$library" | awk '{print $3}')
  grep -q '^_ZN' <<<"$exports" || { echo "hidden_boost: no exports found in $library"; exit 1; }
  shown=$(grep -E '^_Z(T[VISTH]|TW|GVZ?|Z|Th[^N]*|Tv[^N]*)?(N?K?St.*|NK?)5boost' <<<"$exports" || true)
  if [[ -n "$shown" ]]; then
    echo "hidden_boost: $library shows $(wc -l <<<"$shown") names of Boost, among them:"
    head -n 3 <<<"$shown" | c++filt
    exit 1
  fi
done
echo "hidden_boost: nothing of Boost is shown"
