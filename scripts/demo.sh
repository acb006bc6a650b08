#!/usr/bin/env bash
# Moves the virtual hosts of a panel to another drive, and shows it: forty domains with their files,
# accounts, sites, registry values and tables, before and after; and that a move back that fails
# half-way leaves everything as it was. The panel is a stand-in (tests/panel) with a registry, drives
# and a database server of its own, and nothing is left of it. scripts/demo-data.sh shows the move of
# a directory alone.
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/common.sh"

if [ -z "${ZOP_DEMO_INSIDE-}" ]; then
    "$here/setup.sh"
    quietly build release zopctl zopconfigsvc panelctl
    ZOP_DEMO_INSIDE=yes exec "$here/sandbox.sh" --database "${BASH_SOURCE[0]}"
fi
. "$root/tests/panel/panel.sh"
old='C:\srv\vhosts' new='T:\hosting\vhosts'

title() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
zopctl() {
    printf '\033[2m$ zopctl %s\033[0m\n' "$*"
    wine "$zopctl" "$@"
}
show_place() {
    local place
    place=$(unix_path "$1")
    if [ -d "$place" ]; then
        printf '  %-18s ' "$1"
        find "$place/" -type f -printf '%s\n' |
            awk '{ bytes += $1 } END { printf "%d files, %.1f MB; named by ", NR, bytes / 1e6 }'
    else
        printf '  %-18s is not there; named by ' "$1"
    fi
    panelctl references 'C:\srv' "$1" | sed -E 's/^SOFTWARE[^|]*/registry /; s/ \|.*//' | sort | uniq -c |
        awk '{ number = $1; $1 = ""; printf "%s%s in%s", (NR > 1 ? ", " : ""), number, $0 }
             END { print (NR ? "" : "nothing") }'
}
show() {
    show_place "$old"
    show_place "$new"
    echo "  some of it:"
    { panelctl references 'C:\srv' "$old"; panelctl references 'C:\srv' "$new"; } |
        grep -E 'bücher14|HTTPD_VHOSTS_D|Webmail' |
        sed -E 's/^SOFTWARE[^|]*\\([^\\|]*) \| ([^|]*) \| [12] /registry | \1 \2 /; s/ \| (secret|[0-9]+)\b//g' |
        awk -F ' [|] ' '{ printf "    %-10s", $1; for (i = 2; i <= NF; ++i) printf "%s  ", $i; print "" }'
}

title "A panel with forty domains"
mkdir -p "$memory/hosting"
start_panel 'C:\srv' 40 20
show

title "Its virtual hosts are moved to another drive"
zopctl vhosts move "$new" --yes
show

title "Back again, but a utility fails half-way"
panelctl control 'C:\srv' half 20 webhostctl.exe 1 'The site cannot be changed: it is locked.'
work=$(mktemp -d "$memory/hosting/demo.XXXXXX")
panelctl snapshot 'C:\srv' "$new" > "$work/before"
code=0
zopctl vhosts move "$old" --yes || code=$?
echo "  exit code $code"
panelctl snapshot 'C:\srv' "$new" > "$work/after"
[ "$code" = 4 ] || fail "Exit code 4 was expected: failed, and everything is as it was before."
diff "$work/before" "$work/after" > "$work/difference" ||
    fail "$(head -20 "$work/difference")" "Something is not as it was before."
printf '  %d lines of files, registry, tables, accounts and sites: all are what they were before.\n' \
    "$(wc -l < "$work/before")"
show_place "$old"
show_place "$new"
