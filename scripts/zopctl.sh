#!/usr/bin/env bash
# ARGUMENTS...: builds zopctl where that is due, and runs it in the project's Wine prefix.
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/common.sh"
"$here/setup.sh"
quietly build release zopctl
exec "$here/wine.sh" "$root/build/release/bin/zopctl.exe" "$@"
