#!/usr/bin/env bash
# Runs a Windows program in the project's own Wine prefix, which is made at first use (8 s).
set -euo pipefail
cache=${ZOP_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zop}
export WINEPREFIX=${ZOP_WINEPREFIX:-$cache/wine} WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml,winemenubuilder.exe,winedbg.exe=} # no installers, no debugger
export LC_ALL=C.UTF-8 # anything else garbles names outside ASCII
unset DISPLAY WAYLAND_DISPLAY
make_prefix() (
  flock 9
  [ ! -f "$1/system.reg" ] || exit 0
  WINEPREFIX=$(mktemp -d "$1.XXXXXX")
  wineboot --init
  wine winecfg -v win10 # Debian's Wine starts as Windows 7
  wineserver -k || true
  wineserver -w
  # Documents, Desktop and the like are links into $HOME: no test may reach through them.
  find "$WINEPREFIX/drive_c/users" -type l -exec sh -c 'for l; do rm "$l"; mkdir "$l"; done' sh {} +
  mv "$WINEPREFIX" "$1"
)
if [ ! -f "$WINEPREFIX/system.reg" ]; then
  mkdir -p "$(dirname "$WINEPREFIX")"
  make_prefix "$WINEPREFIX" 9> "$WINEPREFIX.lock" < /dev/null > /dev/null 2>&1
fi
wine cmd /c exit < /dev/null > /dev/null 2>&1 # starts the background services with no hold on our output
exec wine "$@"
