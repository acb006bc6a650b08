#!/usr/bin/env bash
# PROGRAM ARGUMENTS...: runs a Windows program in the project's own Wine prefix (ZOP_WINEPREFIX names another).
set -euo pipefail
export HOME=${HOME:-$(getent passwd "$(id -u)" | cut -d: -f6)}
export WINEPREFIX=${ZOP_WINEPREFIX:-${ZOP_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zop}/wine}
export WINEDEBUG=${WINEDEBUG:--all}
export WINEDLLOVERRIDES=${WINEDLLOVERRIDES:-mscoree,mshtml,winemenubuilder.exe,winedbg.exe=} # no installers, no debugger
export LC_ALL=C.UTF-8 # anything else garbles names outside ASCII
unset DISPLAY WAYLAND_DISPLAY
[ -f "$WINEPREFIX/system.reg" ] || "${BASH_SOURCE[0]%/*}/wine-prefix.sh" "$WINEPREFIX"

# A new kernel puts a program's heap anywhere in the gigabyte behind Wine's loader. One start in some
# thousand it lies on the page at 0x7ffe0000, which all processes of a prefix share, and the process ends
# before it has begun: its parent gets error 1359. With addresses that are not random it cannot.
fixed=(setarch --addr-no-randomize)
"${fixed[@]}" true 2> /dev/null || fixed=() # a container may forbid it

# The first program of a prefix starts the background services, and they keep what they inherit:
# whoever reads our output would wait for them, and the terminal's Ctrl+C would end them. So a
# throw-away program starts them, with nothing to inherit. The server stays 15 s after the last
# program, and the services with it; while it is there this costs 7 ms.
exec 9> "$WINEPREFIX/.start"
flock 9
if wineserver -p15 9>&- < /dev/null > /dev/null 2>&1; then
    setsid --wait "${fixed[@]}" wine cmd /c exit 9>&- < /dev/null > /dev/null 2>&1 || true
fi
exec 9>&-
exec "${fixed[@]}" wine "$@"
