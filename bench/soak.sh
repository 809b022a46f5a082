#!/usr/bin/env bash
# Lets clients of every kind work on a tansyd for some minutes, over HTTP and HTTPS, slow ones and broken ones too, and
# prints after a warm-up by how much memory, descriptors, threads and space that no row accounts for change per hour,
# with the bound below which such a slope is noise. Fails when one of them grows.
#
# usage: bench/soak.sh MINUTES [--seed N] [--cycle SECONDS] [--database sqlite|postgresql]
#
# With --database postgresql the rows are in a PostgreSQL of the run's own, in a temporary folder and behind a Unix socket.
set -euo pipefail
minutes=${1:?"usage: bench/soak.sh MINUTES [--seed N] [--cycle SECONDS] [--database sqlite|postgresql]"}
shift
exec "$(dirname "${BASH_SOURCE[0]}")/../scripts/prove.sh" soak --minutes "$minutes" "$@"
