#!/usr/bin/env bash
# [FILE...]: checks all sources, or the named ones: layout, clang-tidy, cppcheck, the direction of
# includes, words that have no place here, and what the DLL imports. Says how to mend what it finds.
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/common.sh"
"$here/setup.sh"
quietly build lint build.ninja # no more than the list of commands, brought up to date
[ $# != 0 ] || quietly build release zopnative
ZOP_CACHE=$cache exec /usr/bin/python3 "$here/check.py" "$@"
