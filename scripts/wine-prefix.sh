#!/usr/bin/env bash
# PREFIX: makes a Wine prefix there, unless there is one. The first is made from nothing (8 s) and
# kept as a template; the others share its files by hard links (0.1 s).
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
prefix=$1
export LC_ALL=C.UTF-8 WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml,winemenubuilder.exe,winedbg.exe=
unset DISPLAY WAYLAND_DISPLAY

# A new Wine brings its template up to date here, once, not in every prefix made from it.
recipe="2 $(dpkg-query -W -f '${Version}' wine64 2> /dev/null || true)"

make_template() (
    export WINEPREFIX=$1
    wineboot --init || true # its exit code tells nothing: the files below do
    wine winecfg -v win10   # Debian's Wine starts as Windows 7
    wineserver -k || true
    wineserver -w
    [ -f "$1/system.reg" ] && [ -f "$1/drive_c/windows/system32/kernel32.dll" ] || exit 1
    # Documents, Desktop and the like are links into $HOME: no test may reach through them.
    find "$1/drive_c/users" -type l -exec sh -c 'for l; do rm "$l"; mkdir "$l"; done' sh {} +
    rm -f "$1/dosdevices/"com* # real serial ports
    echo "$recipe" > "$1/recipe"
)

copy_template() {
    cp -al "$template/." "$1" 2> /dev/null || { rm -rf "$1" && cp -a "$template/." "$1"; } # other file system
    # Written in place, or tied to the server of the template.
    rm -f "$1/wineserver" "$1/recipe" "$1"/*.reg
    cp -a "$template"/*.reg "$1"
}

# Built beside its place and moved in when whole; a second caller waits for the first.
install_prefix() ( # DIRECTORY MAKER
    mkdir -p "$(dirname "$1")"
    work=$(mktemp -d "$1.XXXXXX")
    trap 'rm -rf "$work" "$work.log"' EXIT
    $2 "$work" < /dev/null > "$work.log" 2>&1 || fail "$(cat "$work.log")" \
        "The Wine prefix $1 could not be made." \
        "Check that Wine starts (wine64 --version) and that the disk has 1 GB to spare; then run this again."
    rm -rf "$1"
    mv "$work" "$1"
)

mkdir -p "$cache" "$(dirname "$prefix")"
exec 9> "$template.lock"
flock 9
[ "$(cat "$template/recipe" 2> /dev/null)" = "$recipe" ] || install_prefix "$template" make_template 9>&-
[ -f "$prefix/system.reg" ] || install_prefix "$prefix" copy_template
