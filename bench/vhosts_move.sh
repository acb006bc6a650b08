#!/usr/bin/env bash
# ROUNDS DOMAINS FILES: times the whole move of a stand-in panel's virtual hosts (tests/panel), there
# and back, the bare move of the same tree, and the bare starts of the same utilities; for
# compare.sh, which runs it in a sandbox with a database. A line each: "vhosts", what, value; times
# in milliseconds.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/../scripts/common.sh"
. "$root/tests/panel/panel.sh"
rounds=$1 domains=$2 files=$3
# Two letters are two volumes to what is measured; one file system lies below both.
mkdir "$memory/p" "$memory/q"
ln -sfn "$memory/p" "$ZOP_WINEPREFIX/dosdevices/p:"
ln -sfn "$memory/q" "$ZOP_WINEPREFIX/dosdevices/q:"

field() { sed -n "s/.*\"$1\": \([0-9.]*\).*/\1/p"; }
milliseconds() { printf '%s' "$((${EPOCHREALTIME/[.,]/} / 1000))"; }
whole() { # TARGET
    local start output
    start=$(milliseconds)
    output=$(wine "$zopctl" vhosts move "$1" --yes --quiet 2>&1) || fail "$output" "The move failed."
    echo "vhosts whole $(($(milliseconds) - start))"
}

start_panel 'P:\srv' "$domains" "$files"
calls=$memory/p/srv/panel/var/stand-in/calls.txt
items=$(find "$memory/p/srv/vhosts" | wc -l)
echo "vhosts domains $domains"
echo "vhosts files $(find "$memory/p/srv/vhosts" -type f | wc -l)"
for ((round = 1; round <= rounds; ++round)); do
    say "vhosts: round $round of $rounds"
    result=$(wine "$bin/move_bench.exe" copy 'P:\srv\vhosts' 'Q:\bare') || fail "$result" "The bare move failed."
    echo "vhosts copy $(field move_ms <<< "$result")"
    echo "vhosts removal $(field commit_ms <<< "$result")"
    mv "$memory/q/bare" "$memory/p/srv/vhosts"
    whole 'Q:\vhosts'
    [ ! -e "$memory/p/srv/vhosts" ] || fail "The move has left something."
    [ "$(find "$memory/q/vhosts" | wc -l)" = "$items" ] || fail "The move has lost something."
    whole 'P:\srv\vhosts'
    # Those of both directions, which leaves everything as it is.
    mv "$calls" "$memory/calls.txt"
    result=$(wine "$bin/replay_bench.exe" 'P:\srv\panel\admin' 'T:\calls.txt') ||
        fail "$result" "The utilities could not be run again."
    echo "vhosts starts $(field calls <<< "$result")"
    echo "vhosts replay $(field ms <<< "$result")"
    rm "$calls"
done
