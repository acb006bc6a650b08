#!/usr/bin/env bash
# ARGUMENTS...: builds zopctl where that is due, and runs it in the project's Wine prefix.
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/common.sh"
"$here/setup.sh"
log=$(build release zopctl 2>&1 < /dev/null) || fail "$log" "zopctl could not be built (see above)."
exec "$here/wine.sh" "$root/build/release/bin/zopctl.exe" "$@"
