#!/usr/bin/env bash
# Installs what building, testing and checking need on Debian 12, and makes what they share: the
# Wine prefix, the database client for Windows and a .NET runtime. Safe to run again: 0.2 s when all is there.
set -euo pipefail
here=$(dirname "${BASH_SOURCE[0]}")
. "$here/common.sh"

packages=(
    g++-mingw-w64-x86-64-posix cmake ninja-build ccache googletest libcli11-dev nlohmann-json3-dev # build
    wine wine64 ntfs-3g                           # run; ntfs-3g gives the tests a drive with streams
    mariadb-server-core mariadb-client-core       # the database, without service and account
    mono-mcs                                      # the .NET assembly
    clang-tidy-16 clang-format cppcheck gcovr python3 # check.sh, coverage.sh
    rsync                                         # the benchmarks compare with it
)

command -v npm > /dev/null || packages+=(npm) # fetches the .NET runtime for the tests

missing_packages() {
    declare -A installed=()
    local name status
    while read -r name status; do
        [ "$status" != installed ] || installed[$name]=1
    done < <(dpkg-query -W -f '${Package} ${db:Status-Status}\n' "${packages[@]}" 2> /dev/null)
    for name in "${packages[@]}"; do
        [ -n "${installed[$name]-}" ] || echo "$name"
    done
}

install_packages() {
    local as_root=()
    . /etc/os-release
    [ "${ID-} ${VERSION_ID-}" = "debian 12" ] || fail \
        "This set-up knows Debian 12; here is ${PRETTY_NAME-an unknown system}." \
        "Use a Debian 12 machine or container. Missing here: $*"
    if [ "$(id -u)" != 0 ]; then
        command -v sudo > /dev/null && sudo -n true 2> /dev/null || fail \
            "Packages are missing, and this user can install none: neither root nor sudo without a password." \
            "Have them installed, then run this again:" \
            "    apt-get update && apt-get install -y --no-install-recommends $*"
        as_root=(sudo -n)
    fi
    local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq
        -o DPkg::Lock::Timeout=600 -o Acquire::Retries=2 -o Dpkg::Use-Pty=0)
    say "Installing (a minute or more): $*"
    local log
    log=$("${apt[@]}" -o APT::Update::Error-Mode=any update 2>&1 < /dev/null) || fail "$log" \
        "The package servers cannot be reached (see above)." \
        "Check the network, http_proxy and /etc/apt/sources.list, then run this again."
    log=$("${apt[@]}" install -y --no-install-recommends "$@" 2>&1 < /dev/null) || fail "$log" \
        "The packages could not be installed (see above)." \
        "After mending the cause (often 'dpkg --configure -a' or a full disk), run this again."
}

command -v dpkg-query > /dev/null || fail \
    "This set-up knows Debian 12; here is no dpkg." "Use a Debian 12 machine or container."
mapfile -t missing < <(missing_packages)
[ ${#missing[@]} = 0 ] || install_packages "${missing[@]}"
mkdir -p "$cache" 2> /dev/null && [ -w "$cache" ] || fail \
    "Cannot write to $cache, where the Wine prefix and the database client are kept." \
    "Set ZOP_CACHE to a directory that this user can write to."
"$here/wine-prefix.sh" "$template"
"$here/build-connector.sh" "$cache/connector"
"$here/fetch-dotnet.sh" "$cache/dotnet"
