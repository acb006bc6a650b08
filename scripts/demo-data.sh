#!/usr/bin/env bash
# Moves a real directory tree to another drive and back, and shows it: what was there before and after,
# and that a move that is interrupted leaves everything as it was. Nothing is left behind.
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/common.sh"

if [ -z "${ZOP_DEMO_INSIDE-}" ]; then
    "$here/setup.sh"
    quietly build release zopctl
    ZOP_DEMO_INSIDE=yes exec "$here/sandbox.sh" "${BASH_SOURCE[0]}"
fi

drive_c=$ZOP_WINEPREFIX/drive_c
[ -n "${ZOP_TEST_TMPFS_DRIVE-}" ] || fail "There is no second drive: /dev/shm cannot be written to." \
    "Mount a tmpfs there (mount -t tmpfs none /dev/shm) and run this again."
drive_t=$(readlink -f "$ZOP_WINEPREFIX/dosdevices/t:")

title() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
zopctl() {
    printf '\033[2m$ zopctl'
    printf ' %q' "$@"
    printf '\033[0m\n'
    "$here/wine.sh" "$root/build/release/bin/zopctl.exe" "$@"
}
# Names, contents and times of writing (to 100 ns, as Windows has them), as one number.
manifest() {
    (cd "$1" && {
        find . -printf '%y %T@ %p\n' | sed -E 's/^(. [0-9]+\.[0-9]{7})[0-9]*/\1/' | LC_ALL=C sort
        find . -type f -print0 | LC_ALL=C sort -z | xargs -0r sha256sum
    } | sha256sum | cut -c1-16)
}
show() {
    local place
    for place in "$drive_c/panel/data:C:\\panel\\data" "$drive_t/store/data:T:\\store\\data"; do
        if [ -d "${place%%:*}" ]; then
            printf '  %-14s %5d files, %5s, sum %s\n' "${place#*:}" "$(find "${place%%:*}" -type f | wc -l)" \
                "$(du -sh --apparent-size "${place%%:*}" | cut -f1)" "$(manifest "${place%%:*}")"
        else
            printf '  %-14s is not there\n' "${place#*:}"
        fi
    done
}

title "A tree of 3,000 files: deep folders, names in many scripts, large and empty files"
mkdir -p "$drive_c/panel/data" "$drive_t/store"
(
    cd "$drive_c/panel/data"
    for site in $(seq 1 100); do
        mkdir -p "sites/site$site.example/httpdocs/images" "sites/site$site.example/logs"
        for file in $(seq 1 28); do
            printf 'page %d of site %d\n' "$file" "$site" > "sites/site$site.example/httpdocs/page$file.html"
        done
        : > "sites/site$site.example/logs/empty.log"
        head -c 20000 /dev/urandom > "sites/site$site.example/httpdocs/images/logo.png"
    done
    deep=.
    for level in $(seq 1 40); do deep=$deep/level$level; done
    mkdir -p "$deep" "names/Ünïcödé" "names/日本語" "names/Ελληνικά"
    echo deep > "$deep/at the bottom.txt"
    echo smile > "names/日本語/😀.txt"
    head -c 300000000 /dev/urandom > large.bin
)
before=$(manifest "$drive_c/panel/data")
show

title "To another drive: a copy that is compared before the old place goes"
zopctl data move 'C:\panel\data' 'T:\store\data' --yes --verify
show
[ "$(manifest "$drive_t/store/data")" = "$before" ] || fail "The tree has changed on its way."

title "Interrupted on the way back: Ctrl+C after a moment, and everything is as it was"
printf '\033[2m$ zopctl data move T:\\store\\data C:\\panel\\data --yes --verify, then Ctrl+C\033[0m\n'
log=$(mktemp)
"$here/wine.sh" "$root/build/release/bin/zopctl.exe" data move 'T:\store\data' 'C:\panel\data' --yes --verify > "$log" 2>&1 &
move=$!
until [ -d "$drive_c/panel/data/sites" ] || ! kill -0 "$move" 2> /dev/null; do sleep 0.02; done
kill -INT "$move" 2> /dev/null || true
code=0
wait "$move" || code=$?
cat "$log"
rm -f "$log"
echo "  exit code $code"
show
[ "$code" = 5 ] || fail "The move was not cancelled in time: exit code $code."
[ "$(manifest "$drive_t/store/data")" = "$before" ] || fail "The tree has changed."
[ ! -e "$drive_c/panel/data" ] || fail "A half-made copy was left."

title "And back"
zopctl data move 'T:\store\data' 'C:\panel\data' --yes --verify
show
[ "$(manifest "$drive_c/panel/data")" = "$before" ] || fail "The tree has changed on its way."
printf '\nThe tree is what it was before.\n'
