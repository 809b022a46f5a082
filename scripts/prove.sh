#!/usr/bin/env bash
# Installs what is missing, builds one of the programs that try to refute what docs/safety.md promises, and runs it.
# usage: scripts/prove.sh TOOL [OPTIONS]      TOOL: a folder of tests/prove; --help lists its options
set -euo pipefail
started_in=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")/.."

tool=${1:-}
if [[ -z $tool || ! -f tests/prove/$tool/CMakeLists.txt ]]; then
  echo "usage: scripts/prove.sh TOOL [OPTIONS], where TOOL is one of: $(cd tests/prove && ls -d */ | tr -d '/' | xargs)" >&2
  exit 2
fi
shift
TANSY_CMAKE_ARGS=-DTANSY_BUILD_TESTS=ON scripts/build.sh release "prove_$tool"
program=$PWD/build/bin/prove_$tool
cd "$started_in"
exec "$program" "$@"
