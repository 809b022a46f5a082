#!/usr/bin/env bash
# Runs a Windows program under Wine, in a prefix and a home of its own.
# usage: scripts/wine.sh PROGRAM [ARGUMENT...]
#        scripts/wine.sh --start        makes the prefix, and starts the server that all programs share
#        scripts/wine.sh --stop         ends everything in the prefix
#
# The prefix is ${XDG_CACHE_HOME:-~/.cache}/tansy/wine, or $TANSY_WINE_PREFIX.
set -euo pipefail

prefix=${TANSY_WINE_PREFIX:-${XDG_CACHE_HOME:-$HOME/.cache}/tansy/wine}
wine=${TANSY_WINE:-/usr/lib/wine/wine64}
server=${TANSY_WINESERVER:-/usr/lib/wine/wineserver64}

export WINEPREFIX=$prefix/prefix HOME=$prefix/home WINEARCH=win64 WINESERVER=$server
export WINEDEBUG=${WINEDEBUG:--all}
# Neither windows nor a browser or .NET are needed, and menus of the desktop are none of its business.
export WINEDLLOVERRIDES='mscoree,mshtml,winemenubuilder.exe=d'
unset DISPLAY WAYLAND_DISPLAY

# The server and the services that it starts live on after the first program. They must not hold the pipes of whoever
# started that: who waits for the end of its output would wait for theirs. The same goes for whatever else is open here.
start() (
  for open in "/proc/$BASHPID/fd/"*; do
    open=${open##*/}
    if ((open > 2 && open < 255)); then  # 255 is this script
      exec {open}>&-
    fi
  done
  mkdir -p "$prefix/home"
  exec 8>"$prefix/lock"
  flock 8
  "$server" --persistent </dev/null >/dev/null 2>&1 8>&- || true  # 2: it runs already
  if [[ ! -e $prefix/made ]]; then
    "$wine" wineboot --init </dev/null >"$prefix/log" 2>&1 8>&-
    "$wine" reg add 'HKCU\Software\Wine' /v Version /d win10 /f </dev/null >>"$prefix/log" 2>&1 8>&-
    touch "$prefix/made"
  else
    "$wine" cmd /c exit </dev/null >>"$prefix/log" 2>&1 8>&-
  fi
)

case ${1:-} in
  --start)
    start
    ;;
  --stop)
    "$server" --kill </dev/null >/dev/null 2>&1 || true
    "$server" --wait </dev/null >/dev/null 2>&1 || true
    ;;
  '')
    sed -n '2,7s/^# \{0,1\}//p' "$0" >&2
    exit 2
    ;;
  *)
    # Without a server this program would start one, which would hold its output. This says no when one runs already.
    if [[ ! -e $prefix/made ]] || "$server" --persistent </dev/null >/dev/null 2>&1; then
      start
    fi
    exec "$wine" "$@"
    ;;
esac
