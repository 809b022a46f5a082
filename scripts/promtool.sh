#!/usr/bin/env bash
# Runs Prometheus' promtool, which checks figures, alerts and the dashboard: that of the machine, or the one that
# scripts/dependencies.sh has put below build/tools.
# usage: scripts/promtool.sh ARGUMENT...
set -euo pipefail
own=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/build/tools/promtool
if command -v promtool >/dev/null; then
  exec promtool "$@"
fi
if [[ ! -x $own ]]; then
  echo "promtool is missing: run scripts/dependencies.sh" >&2
  exit 1
fi
exec "$own" "$@"
