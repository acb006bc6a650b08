#!/usr/bin/env bash
# [CTEST ARGUMENTS...]: sets the machine up, builds, and runs the tests through Wine in a prefix of
# their own. For example: scripts/test.sh -R relocation
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/common.sh"
"$here/setup.sh"
build release
cd "$root"
"$here/sandbox.sh" ctest --preset release --no-tests=error "$@" < /dev/null
