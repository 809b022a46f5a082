# What the harness needs on this machine, and the programs that it builds.

# Packages of Debian that every row may need; the build brings PostgreSQL and Ceph, because the tests need them. nginx-core has the DAV
# module; Debian starts its own nginx with the package, which the harness does not use.
bench_packages=(wrk nginx-core fio sqlite3 curl openssl)

missing_packages() {
  local package state name
  for name in "${chosen[@]}"; do
    # shellcheck disable=SC2206
    bench_packages+=(${row_packages[$name]:-})
  done
  ! $profile || bench_packages+=(linux-perf)
  for package in "${bench_packages[@]}"; do
    state=$(dpkg-query -W -f='${db:Status-Abbrev}' "$package" 2>/dev/null || true)
    [[ $state == ii* ]] || echo "$package"
  done
}

install_tools() {
  local missing as_root=()
  mapfile -t missing < <(missing_packages)
  ((${#missing[@]} > 0)) || return 0
  if ((EUID != 0)); then
    command -v sudo >/dev/null || { echo "bench: missing: ${missing[*]}; install them as root" >&2; return 1; }
    as_root=(sudo)
  fi
  echo "bench: installing ${missing[*]}"
  "${as_root[@]}" apt-get update -qq
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

build_programs() { # TARGET...
  TANSY_CMAKE_ARGS=-DTANSY_BUILD_BENCH=ON scripts/build.sh release "$@" >"$disk/build.log" 2>&1 ||
    { tail -40 "$disk/build.log" >&2; return 1; }
}

# A row that cannot be measured says why and fails; it never prints a number.
fail() {
  echo "bench: $*" >&2
  return 1
}
