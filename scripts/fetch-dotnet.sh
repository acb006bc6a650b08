#!/usr/bin/env bash
# DIRECTORY: fetches a .NET runtime for Windows, on which the tests of the assembly run, once (5 s).
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
directory=$1
package=dotnet-2.0.0-win@1.0.5
sum=8ab4690ff829bcbbaf962febf6ef50b1bfb719b40a06bb9b2cb3ac3882d05d36
mkdir -p "$(dirname "$directory")"
exec 9> "$directory.lock"
flock 9
[ ! -f "$directory/dotnet.exe" ] || exit 0

say "Fetching the .NET runtime for the tests (once, a few seconds)"
work=$(mktemp -d "$directory.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"
# Not 'npm install': the package says that it is for Windows, and would be refused here.
npm pack --loglevel=error "$package" > log 2>&1 < /dev/null || fail "$(cat log)" \
    "The .NET runtime could not be fetched (see above)." "Check the network and npm's settings; then run this again."
rm log
echo "$sum  $(ls)" | sha256sum --check --quiet || fail \
    "What was fetched as $package is not what it should be. Nothing was installed." \
    "Check what npm's registry and proxies deliver; then run this again."
mkdir runtime
tar -xzf ./*.tgz -C runtime --strip-components=1
rm -rf "$directory"
mv runtime "$directory"
