#!/usr/bin/env bash
# Installs the package into a fresh Debian below a temporary folder, starts tansyd there as its unit does, and uses it. Takes a minute
# or more, downloads from the machine's Debian mirror, and needs root.
# usage: fresh_system.sh PACKAGE
set -euo pipefail
tests=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
# What is mounted below goes with this process.
if [[ -z "${TANSY_OWN_MOUNTS:-}" ]]; then
  TANSY_OWN_MOUNTS=1 exec unshare --mount --propagation private "$0" "$@"
fi
source "$tests/serving.sh"

package=$1
work=$(mktemp -d)
manager_pid=
cleanup() {
  stop_tansyd
  [[ -z "$manager_pid" ]] || kill "$manager_pid" 2>/dev/null || true
  umount -l "$root/proc" "$root/dev" 2>/dev/null || true
  rm -rf --one-file-system "$work"
}
root=$work/root
trap cleanup EXIT

# Only Debian's own sources of this machine.
mapfile -t sources < <(grep -lE 'deb\.debian\.org|debian-archive-keyring' /etc/apt/sources.list /etc/apt/sources.list.d/* 2>/dev/null)
[[ -n "${sources[*]}" ]] || fail "this machine has no sources of Debian"
suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
echo "package: making a fresh $suite"
mmdebstrap --quiet --variant=apt "$suite" "$root" "${sources[@]}"
mount --bind /proc "$root/proc"
mount --rbind /dev "$root/dev"
cp /etc/resolv.conf "$root/etc/resolv.conf"
in_root() {
  DEBIAN_FRONTEND=noninteractive chroot "$root" "$@" >>"$work/out" 2>&1 || fail "$*: $(tail -30 "$work/out")"
}

echo "package: installing"
cp "$package" "$root/tmp/tansyd.deb"
in_root apt-get update -qq
in_root apt-get install -y --no-install-recommends /tmp/tansyd.deb
settings=$root/etc/tansyd/tansyd.toml
expect_private_keys "$settings"
! grep -qF "$(key_of "$settings" secret_key)" "$work/out" || fail "the key was printed"
user=$(chroot "$root" id -u tansyd)
[[ $(stat -c %u "$settings") == "$user" && $(stat -c %u "$root/var/lib/tansyd") == "$user" ]] || fail "the user does not own its files"
[[ -L $root/etc/systemd/system/multi-user.target.wants/tansyd.service ]] || fail "the service would not start with the machine"

# Other servers of this machine have the usual ports.
object_port=$(free_port)
{
  printf 'object-port = %s\npicture-port = %s\ns3-port = %s\nadmin-port = %s\nlisten = "127.0.0.1"\n' \
    "$object_port" "$(free_port)" "$(free_port)" "$(free_port)"
  printf 'object-https-port = 0\npicture-https-port = 0\ns3-https-port = 0\n'
  cat "$settings"
} >"$work/settings"
cat "$work/settings" >"$settings"

# Starts it as the unit does: its command, its user, its capabilities, and the socket of the service manager.
start_as_service() {
  coproc MANAGER { exec python3 -u - "$root/run/notify" <<'END'; }
import os, socket, sys
manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
if os.path.exists(sys.argv[1]):
    os.unlink(sys.argv[1])
manager.bind(sys.argv[1])
os.chmod(sys.argv[1], 0o666)
print("listens")
while True:
    print(manager.recv(4096).decode().replace("\n", " "))
END
  manager_pid=$MANAGER_PID
  hear listens
  local command
  read -r -a command < <(sed -n 's/^ExecStart=//p' "$root/usr/lib/systemd/system/tansyd.service")
  NOTIFY_SOCKET=/run/notify WATCHDOG_USEC=2000000 chroot "$root" setpriv --reuid tansyd --regid tansyd --clear-groups \
    --no-new-privs --bounding-set -all,+net_bind_service "${command[@]}" >"$work/tansyd.out" 2>"$work/tansyd.log" &
  tansyd_pid=$!
}
hear() { # TEXT
  local line
  while read -r -t 60 -u "${MANAGER[0]}" line; do
    [[ $line != *"$1"* ]] || return 0
  done
  fail "the service manager was not told $1: $(cat "$work/tansyd.log" 2>/dev/null)"
}

echo "package: serving"
start_as_service
hear READY=1
hear WATCHDOG=1
store_and_read "$root" "$settings"
kill -HUP "$tansyd_pid"
hear RELOADING=1
hear READY=1
stop_tansyd
hear STOPPING=1

keys=$(cat "$settings")
in_root apt-get remove -y tansyd
in_root apt-get install -y --no-install-recommends /tmp/tansyd.deb
in_root apt-get purge -y tansyd
[[ $(cat "$settings") == "$keys" && -e $root/var/lib/tansyd/catalogue.db ]] || fail "a purge has removed data without being told so"
echo "package: installs, serves and goes on a fresh $suite"
