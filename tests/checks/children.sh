#!/usr/bin/env bash
# Fails on a test that starts a program which may outlive it: whoever forks and becomes another program calls
# EndWithParent in between.
# usage: children.sh SOURCE_FOLDER
set -uo pipefail
cd "$1" || exit 2

failures=0
while IFS= read -r file; do
  if grep -qE '\bexec(v|l|ve|vp|vpe|lp)\(' "$file" && ! grep -q 'EndWithParent(' "$file"; then
    echo "children: $file starts a program that may outlive a killed test: call EndWithParent (fakes/ChildProcess.h)"
    failures=$((failures + 1))
  fi
done < <(grep -rlE --include='*.cpp' --include='*.h' '\bfork\(\)' tests)
((failures == 0)) || exit 1
echo "children: every program that a test starts ends with it"
