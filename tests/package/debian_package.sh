#!/usr/bin/env bash
# Makes the package, has lintian read it, installs it into an empty folder with its own scripts, and serves from there. Whether it
# can be installed on a system of its own is for scripts/package.sh --test.
# usage: debian_package.sh BUILD_FOLDER
set -euo pipefail
tests=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
if ((EUID != 0)) && [[ -z "${FAKEROOTKEY:-}" ]]; then
  exec fakeroot "$0" "$@"
fi
source "$tests/serving.sh"

work=$(mktemp -d)
cleanup() {
  stop_tansyd
  rm -rf "$work"
}
trap cleanup EXIT

package=$("$tests/make_package.sh" "$1" "$work")
lintian --allow-root --fail-on error,warning "$package"

root=$work/root
mkdir -p "$root"/var/lib/dpkg/{info,updates} "$root"/var/cache/debconf "$root/etc"
touch "$root/var/lib/dpkg/status"
cp /etc/debconf.conf "$root/etc" # the answers to questions are kept below the root too
export DEBIAN_FRONTEND=noninteractive
own_dpkg() {
  dpkg --root="$root" --force-script-chrootless --force-depends --log="$work/dpkg.log" "$@" >>"$work/out" 2>&1 ||
    fail "dpkg $*: $(cat "$work/out")"
}

own_dpkg --install "$package"
settings=$root/etc/tansyd/tansyd.toml
expect_private_keys "$settings"
! grep -qF "$(key_of "$settings" secret_key)" "$work/out" "$work/dpkg.log" || fail "the key was printed"
[[ $(stat -c %a "$root/var/lib/tansyd") == 700 ]] || fail "others can enter the data folder"
[[ $(readlink "$root/var/lib/tansyd/tansyd.toml") == /etc/tansyd/tansyd.toml ]] || fail "the data folder names no settings"
for page in man8/tansyd.8 man5/tansyd.toml.5 man1/tansy.1; do
  zcat "$root/usr/share/man/$page.gz" | groff -man -Tutf8 -ww >/dev/null 2>"$work/groff" && [[ ! -s $work/groff ]] ||
    fail "$page: $(cat "$work/groff")"
done
for shell in tansy tansyd; do
  bash -n "$root/usr/share/bash-completion/completions/$shell" || fail "the completion of $shell is no script"
done
mkdir "$work/units"
for unit in tansyd.service tansyd.socket; do
  sed "s#=/usr/bin/#=$root/usr/bin/#" "$root/usr/lib/systemd/system/$unit" >"$work/units/$unit"
done
systemd-analyze verify --man=no "$work"/units/* 2>"$work/verify" && [[ ! -s $work/verify ]] || fail "units: $(cat "$work/verify")"
# 0 is the best, and most services of Debian are above 9.
systemd-analyze security --offline=yes --threshold=25 --no-pager "$root/usr/lib/systemd/system/tansyd.service" >"$work/security" ||
  fail "the service may do more than it must: $(tail -3 "$work/security")"

start_tansyd "$root" "$settings"
store_and_read "$root" "$settings"
stop_tansyd

keys=$(cat "$settings")
own_dpkg --install "$package" # as an upgrade
own_dpkg --remove tansyd
[[ $(cat "$settings") == "$keys" ]] || fail "the keys have changed"
own_dpkg --install "$package"
[[ $(cat "$settings") == "$keys" ]] || fail "the keys have changed"
start_tansyd "$root" "$settings"
read_again "$root" "$settings"
stop_tansyd

own_dpkg --purge tansyd # nobody answers the question
[[ $(cat "$settings") == "$keys" && -e $root/var/lib/tansyd/catalogue.db ]] || fail "a purge has removed data without being told so"
own_dpkg --install "$package"
echo "tansyd tansyd/remove-data boolean true" | DPKG_ROOT=$root debconf-set-selections
own_dpkg --purge tansyd
[[ ! -e $root/etc/tansyd && ! -e $root/var/lib/tansyd ]] || fail "the data are still there"
echo "the package installs, serves, and goes"
