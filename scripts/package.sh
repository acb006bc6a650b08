#!/usr/bin/env bash
# Builds the package that people install: build/package/zopnative-VERSION-win64.zip. Everything the
# library needs is in it.
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/common.sh"
"$here/setup.sh"
build package
cd "$root/build/package"
quietly cpack
ls -l "$PWD"/*.zip
