#!/usr/bin/env bash
# [CTEST ARGUMENTS...]: runs the tests on an instrumented build and reports which lines they reach:
# a summary here, the details in build/coverage/report/index.html.
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/common.sh"
"$here/setup.sh"
build coverage
cd "$root"
find build/coverage -name '*.gcda' -delete # counts of the last run would add up
status=0
ctest --preset coverage --no-tests=error "$@" < /dev/null || status=$?
mkdir -p build/coverage/report
gcovr --root . --object-directory build/coverage build/coverage \
    --gcov-executable x86_64-w64-mingw32-gcov-posix \
    --filter '(runtime|config|security|relocation|api|tools)/' --exclude-throw-branches \
    --print-summary --html-details build/coverage/report/index.html --txt build/coverage/report/summary.txt
sed -n '/^File/,$p' build/coverage/report/summary.txt
say "Details: $root/build/coverage/report/index.html"
exit "$status" # a failing test fails this too, after the report
