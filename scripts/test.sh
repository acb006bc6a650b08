#!/usr/bin/env bash
# [CTEST ARGUMENTS...]: sets the machine up, builds, and runs the tests through Wine.
# For example: scripts/test.sh -R relocation
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/common.sh"
"$here/setup.sh"
build release
cd "$root"
# A round trip to Wine's server costs a fraction on one core of what it costs between two idle ones: the
# tests take one minute in place of six.
pin=()
if taskset -c 0 true 2> /dev/null; then pin=(taskset -c 0); fi
${pin[@]+"${pin[@]}"} ctest --preset release --no-tests=error "$@" < /dev/null
