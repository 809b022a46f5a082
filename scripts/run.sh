#!/usr/bin/env bash
# Installs what is missing, builds, and starts tansyd on its embedded default. Options go to tansyd.
# usage: scripts/run.sh [tansyd options]
set -euo pipefail
started_in=$PWD
cd "$(dirname "${BASH_SOURCE[0]}")/.."

TANSY_CMAKE_ARGS=-DTANSY_BUILD_TESTS=OFF scripts/build.sh release
program=$PWD/build/bin/tansyd
cd "$started_in"
exec "$program" "$@"
