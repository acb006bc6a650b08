#!/usr/bin/env bash
# [--rounds N] [--quick] [--only NAME]: times our move against xcopy, a bare CopyFileW loop and
# cmd's rd under the same Wine, and against cp, rsync and rm outside of it; prints medians, ratios
# and whether each target is met. Everything lies in memory (/dev/shm) and is gone afterwards.
# NAME: small, large, empty, deep, rename, memory, calls, micro, config, vhosts
set -euo pipefail
rounds=5 quick= only=
usage() {
    sed -n '2,5s/^# //p' "${BASH_SOURCE[0]}"
    exit "$1"
}
arguments=("$@")
while [ $# != 0 ]; do
    case $1 in
        --rounds) rounds=${2-}; shift ;;
        --quick) quick=yes ;;
        --only) only=${2-}; shift ;;
        --help) usage 0 ;;
        *) usage 2 >&2 ;;
    esac
    shift || usage 2 >&2
done
[[ $rounds =~ ^[1-9][0-9]*$ ]] || usage 2 >&2
[[ $only =~ ^(|small|large|empty|deep|rename|memory|calls|micro|config|vhosts)$ ]] || usage 2 >&2

# Wine's server and the program on one core, as is everything they are compared with: a round trip
# between two cores takes 8 to 50 us at random. Before others where that is allowed.
if [ -z "${ZOP_BENCH_PINNED-}" ]; then
    export ZOP_BENCH_PINNED=yes
    before=() pin=()
    ! nice -n -15 true 2> /dev/null || before=(nice -n -15)
    ! command -v taskset > /dev/null || pin=(taskset -c "${ZOP_BENCH_CPU:-0}")
    exec ${before+"${before[@]}"} ${pin+"${pin[@]}"} "${BASH_SOURCE[0]}" ${arguments+"${arguments[@]}"}
fi
. "$(dirname "${BASH_SOURCE[0]}")/../scripts/common.sh"
bench=$root/bench
[ -w /dev/shm ] || fail "/dev/shm is not to be had here." "The comparison needs a file system in memory there."
for program in move_bench copyfile_loop call_counts micro_bench config_bench replay_bench zopctl zopconfigsvc panelctl; do
    [ -f "$root/build/release/bin/$program.exe" ] || fail "$program.exe has not been built." \
        "Run: cmake --preset release -DZOP_BENCH=ON && cmake --build --preset release -j2"
done

work= prefix=
clean_up() {
    trap '' INT TERM
    if [ -n "$prefix" ]; then
        WINEPREFIX=$prefix wineserver -k > /dev/null 2>&1 || true
        WINEPREFIX=$prefix wineserver -w > /dev/null 2>&1 || true
    fi
    [ -z "$work" ] || rm -rf --one-file-system "$work"
    [ -z "$prefix" ] || rm -rf --one-file-system "${prefix%/*}"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
mkdir -p "$cache"
prefix=$(mktemp -d "$cache/bench.XXXXXX")/prefix
work=$(mktemp -d /dev/shm/zop-bench.XXXXXX)
"$root/scripts/wine-prefix.sh" "$prefix"
export ZOP_WINEPREFIX=$prefix
# Two letters are two volumes to what is measured, so it copies; one file system lies below both,
# so all copies cost the same.
mkdir "$work/p" "$work/q"
ln -sfn "$work/p" "$prefix/dosdevices/p:"
ln -sfn "$work/q" "$prefix/dosdevices/q:"
results=$work/results
: > "$results"

now() { printf '%s' "${EPOCHREALTIME/[.,]/}"; } # microseconds
note() { printf '%s %s %s\n' "$1" "$2" "$3" >> "$results"; } # TREE WHAT VALUE
timed() { # TREE WHAT COMMAND...: its milliseconds
    local start end
    start=$(now)
    "${@:3}" > "$work/output" 2>&1 < /dev/null || fail "$(tail -5 "$work/output")" "Failed: ${*:3}"
    end=$(now)
    note "$1" "$2" "$(((end - start) / 1000)).$(printf '%03d' $(((end - start) % 1000)))"
}
wine() { "$root/scripts/wine.sh" "$@" < /dev/null; }
program() { wine "$root/build/release/bin/$1.exe" "${@:2}"; }
field() { sed -n "s/.*\"$1\": \([0-9.]*\).*/\1/p"; }
wanted() { [ -z "$only" ] || [ "$only" = "$1" ]; }
clear() { rm -rf --one-file-system "$work"/p/* "$work"/q/*; }

compare() { # TREE FOLDERS FILES BYTES [chain]
    wanted "$1" || return 0
    local tree=$1 round result items
    python3 "$bench/make_tree.py" "$work/p/tree" "${@:2}"
    items=$(find "$work/p/tree" | wc -l)
    for ((round = 1; round <= rounds; ++round)); do
        say "$tree: round $round of $rounds"
        timed start program program move_bench nothing
        if [ "${5-}" != chain ]; then # neither gets to the end of long paths
            timed "$tree" xcopy wine xcopy 'p:\tree' 'q:\xcopy' /E /I /H /K /Q /Y
            timed "$tree" rd wine cmd /c rd /s /q 'q:\xcopy'
            [ ! -e "$work/q/xcopy" ] || fail "rd has left something."
        fi
        result=$(program copyfile_loop 'p:\tree' 'q:\loop')
        note "$tree" loop "${result%$'\r'}"
        timed "$tree" rm rm -rf "$work/q/loop"
        timed "$tree" cp cp -a "$work/p/tree" "$work/q/cp"
        rm -rf "$work/q/cp"
        result=$(program move_bench copy 'p:\tree' 'q:\ours') || fail "$result" "The move failed."
        [ ! -e "$work/p/tree" ] || fail "The move has left something."
        [ "$(find "$work/q/ours" | wc -l)" = "$items" ] || fail "The move has lost something."
        mv "$work/q/ours" "$work/p/tree"
        note "$tree" copy "$(field move_ms <<< "$result")"
        note "$tree" removal "$(field commit_ms <<< "$result")"
        note "$tree" memory "$(field peak_kib <<< "$result")"
        timed "$tree" rsync rsync -a "$work/p/tree/" "$work/q/rsync"
        rm -rf "$work/q/rsync"
    done
    clear
}

measure_rename() {
    local files result round
    for files in "$@"; do
        python3 "$bench/make_tree.py" "$work/p/tree" $(((files + 24) / 25)) "$files" 100
        for ((round = 1; round <= rounds * 2; ++round)); do
            result=$(program move_bench rename 'p:\tree' 'p:\renamed') || fail "$result" "The move failed."
            note rename "$files" "$(field move_ms <<< "$result")"
            mv "$work/p/renamed" "$work/p/tree"
        done
        clear
    done
}

measure_memory() { # FOLDERS FILES
    local result
    python3 "$bench/make_tree.py" "$work/p/tree" "$1" "$2" 0
    result=$(program move_bench copy 'p:\tree' 'q:\ours') || fail "$result" "The move failed."
    note memory "$2" "$(field peak_kib <<< "$result")"
    clear
}

# Once beforehand, so that no measurement waits for the services of the prefix.
program move_bench nothing
if [ -n "$quick" ]; then
    compare small 40 1000 4096
    compare large 1 2 $((64 << 20))
    compare empty 80 2000 0
    compare deep 100 100 100 chain
    sizes="100 1000" many="400 10000" panel="30 14"
else
    compare small 800 20000 4096
    compare large 1 4 $((512 << 20))
    compare empty 2000 50000 0
    compare deep 200 200 100 chain
    sizes="100 10000 50000" many="8000 200000" panel="1000 44"
fi
! wanted rename || measure_rename $sizes
! wanted memory || measure_memory $many
if wanted calls; then
    for way in ordinary backup; do
        printf '\nWin32 calls an item, %s path\n' "$way"
        result=$(program call_counts "$way" 'p:\') || fail "$result" "The calls could not be counted."
        printf '%s\n' "$result"
        note "$way" file "$(grep 'copied file' <<< "$result" | field sum)"
        note "$way" directory "$(grep 'copied directory' <<< "$result" | field sum)"
    done
fi
if wanted micro; then
    printf '\nPieces\n'
    program micro_bench 'p:\'
fi
if wanted config; then
    printf '\nConfiguration reads\n'
    program config_bench
fi
if wanted vhosts; then # with a prefix and a database of its own; a round is two moves, and a long one
    "$root/scripts/sandbox.sh" --database "$bench/vhosts_move.sh" $(((rounds + 1) / 2)) $panel >> "$results" ||
        fail "The move of virtual hosts could not be measured (see above)."
fi
python3 "$bench/summary.py" "$results"
