#!/usr/bin/env bash
# PREFIX: builds MariaDB Connector/C for Windows from Debian's source into PREFIX/include/mariadb,
# PREFIX/lib and PREFIX/bin, once (30 s). One build serves all build folders and clones.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/common.sh"
prefix=$1
recipe=$(cat "${BASH_SOURCE[0]}" "$root/cmake/mingw64.cmake" | sha256sum)
mkdir -p "$(dirname "$prefix")"
exec 9> "$prefix.lock"
flock 9
[ "$(cat "$prefix/recipe" 2> /dev/null)" != "$recipe" ] || exit 0

say "Building MariaDB Connector/C for Windows (once, half a minute)"
work=$(mktemp -d "$prefix.XXXXXX")
trap 'rm -rf "$work"' EXIT
tarball=$("$root/scripts/fetch-debian-source.sh" mariadb "$work/download" 2> "$work/log" < /dev/null) || fail \
    "$(tail -n 20 "$work/log")" "The source of MariaDB could not be downloaded (see above)." \
    "Check the network and that the machine's package sources are Debian's; then run this again."
mkdir "$work/source"
tar -xf "$tarball" -C "$work/source" --strip-components=2 --wildcards 'mariadb-*/libmariadb/*'
configure=(-G Ninja -S "$work/source" -B "$work/build" -Wno-dev
    "-DCMAKE_TOOLCHAIN_FILE=$root/cmake/mingw64.cmake" -DCMAKE_BUILD_TYPE=Release
    "-DCMAKE_INSTALL_PREFIX=$work/install" -DCMAKE_C_FLAGS=-w -DCMAKE_SHARED_LINKER_FLAGS_RELEASE=-s
    -DWITH_UNIT_TESTS=OFF -DWITH_SSL=SCHANNEL -DWITH_EXTERNAL_ZLIB=OFF -DWITH_CURL=OFF
    # Authentication is built in, so no folder of plug-ins has to be shipped.
    -DCLIENT_PLUGIN_CACHING_SHA2_PASSWORD=STATIC -DCLIENT_PLUGIN_SHA256_PASSWORD=STATIC
    -DCLIENT_PLUGIN_CLIENT_ED25519=STATIC -DCLIENT_PLUGIN_DIALOG=OFF -DCLIENT_PLUGIN_MYSQL_CLEAR_PASSWORD=OFF)
{
    cmake "${configure[@]}" && cmake --build "$work/build" --target libmariadb mariadbclient &&
        cmake --install "$work/build" --component SharedLibraries &&
        cmake --install "$work/build" --component Development
} > "$work/log" 2>&1 < /dev/null || fail "$(tail -n 40 "$work/log")" "MariaDB Connector/C could not be built (see above)."
cd "$work/install"
mkdir bin
mv lib/mariadb/libmariadb.dll bin/
mv lib/mariadb/liblibmariadb.dll.a lib/libmariadb.dll.a
mv lib/mariadb/libmariadbclient.a lib/
rmdir lib/mariadb
cp "$work/source/COPYING.LIB" .
echo "$recipe" > recipe
rm -rf "$prefix"
mv "$work/install" "$prefix"
