#!/usr/bin/env bash
# Installs what the build needs and this machine lacks, from Debian's packages. Says what it installs; installs nothing twice.
# usage: scripts/dependencies.sh [--no-tests|--package|--lint|--windows|--fuzz|windows]
#        windows: what the preset of that name needs, which builds some libraries; --windows: its compiler alone
set -euo pipefail

packages=(
  g++ cmake ninja-build ccache pkg-config
  libboost1.81-dev libssl-dev libpugixml-dev rapidjson-dev libsqlite3-dev libpq-dev
  libcli11-dev libtomlplusplus-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  openssl curl groff-base
)
with_tests=true
[[ ! "${1:-}" =~ ^(--no-tests|--package|windows)$ ]] || with_tests=false
if $with_tests; then
  packages+=(postgresql-15 ceph-common ceph-mon ceph-osd awscli python3-boto3 s3cmd rclone restic)
  packages+=(dpkg-dev fakeroot lintian systemd) # for the package
fi
if [[ "${1:-}" == --lint ]]; then
  packages+=(clang-format-14 clang-tidy-14)
elif [[ "${1:-}" == --package ]]; then
  packages+=(dpkg-dev mmdebstrap)
elif [[ "${1:-}" == --windows ]]; then
  packages+=(g++-mingw-w64-x86-64-posix)
elif [[ "${1:-}" == windows ]]; then
  packages+=(g++-mingw-w64-x86-64-posix clang-14 wine64 dpkg-dev googletest tcl perl make)
elif [[ "${1:-}" == --fuzz ]]; then
  packages+=(clang-14 libclang-rt-14-dev)
fi

# These may have come from elsewhere than Debian's packages.
add_program() {
  command -v "$1" >/dev/null || packages+=("$2")
}
if [[ "${1:-}" != windows ]]; then
  add_program node nodejs
  add_program npm npm
fi
if $with_tests && [[ -z "${TANSY_TEST_BROWSER:-}" ]]; then
  add_program chromium chromium
fi

# Libraries for Windows have no packages.
build_libraries() {
  [[ "${1:-}" != windows ]] || "$(dirname "${BASH_SOURCE[0]}")/windows-libraries.sh"
}

# Only one program of that package is wanted: installed, it would start a service on the machine.
fetch_promtool() {
  local tools work
  tools=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/build/tools
  if command -v promtool >/dev/null || [[ -x $tools/promtool ]]; then
    return
  fi
  echo "dependencies: fetching promtool"
  work=$(mktemp -d)
  if ! (cd "$work" && apt-get download -qq prometheus && dpkg-deb -x prometheus_*.deb .); then
    echo "dependencies: promtool cannot be fetched: run apt-get update" >&2
    rm -rf "$work"
    return 1
  fi
  mkdir -p "$tools"
  mv "$work/usr/bin/promtool" "$tools/promtool"
  rm -rf "$work"
}

missing=()
for package in "${packages[@]}"; do
  state=$(dpkg-query -W -f='${db:Status-Abbrev}' "$package" 2>/dev/null || true)
  [[ "$state" == ii* ]] || missing+=("$package")
done
if ((${#missing[@]} == 0)); then
  build_libraries "$@"
  ! $with_tests || fetch_promtool
  exit 0
fi

as_root=()
if ((EUID != 0)); then
  if ! command -v sudo >/dev/null; then
    echo "dependencies: missing: ${missing[*]}; install them as root, or install sudo" >&2
    exit 1
  fi
  as_root=(sudo)
fi

echo "dependencies: installing ${missing[*]}"
# The tests start PostgreSQL by themselves. Its package would make a database of the machine's own and start it, unless it
# is told not to while it is installed.
no_cluster=/etc/postgresql-common/createcluster.d/tansy-dependencies.conf
if [[ " ${missing[*]} " == *" postgresql-15 "* ]]; then
  "${as_root[@]}" mkdir -p "${no_cluster%/*}"
  echo "create_main_cluster = false" | "${as_root[@]}" tee "$no_cluster" >/dev/null
  trap '"${as_root[@]}" rm -f "$no_cluster"' EXIT
fi
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
build_libraries "$@"
! $with_tests || fetch_promtool
