#!/usr/bin/env bash
# [--database] COMMAND...: runs it with a Wine prefix and drives of its own, and with a database
# server where that is asked for; afterwards nothing is left of them.
# Programs find the drives in these variables; the ones that the machine cannot give stay unset:
#   ZOP_TEST_TMPFS_DRIVE  another file system than C:, so a move to it has to copy
#   ZOP_TEST_FULL_DRIVE   holds 1 MiB, so it fills up (root only)
#   ZOP_TEST_NTFS_DRIVE   64 MiB of real NTFS, with alternate streams (root only)
# and the server in ZOP_TEST_DB_HOST, _PORT, _USER and _PASSWORD (database zop_test).
set -euo pipefail
if [ "$(id -u)" = 0 ] && [ -z "${ZOP_SANDBOX_MOUNTS-}" ]; then
    # In a mount namespace of ours the machine sees no mount of ours, and none can be left behind.
    if unshare --mount true 2> /dev/null; then
        ZOP_SANDBOX_MOUNTS=yes exec unshare --mount --propagation private "${BASH_SOURCE[0]}" "$@"
    fi
fi
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
. "$here/common.sh"
. "$here/mariadb.sh"
mounts=${ZOP_SANDBOX_MOUNTS-}
unset ZOP_SANDBOX_MOUNTS ZOP_TEST_TMPFS_DRIVE ZOP_TEST_FULL_DRIVE ZOP_TEST_NTFS_DRIVE
unset ZOP_TEST_DB_HOST ZOP_TEST_DB_PORT ZOP_TEST_DB_USER ZOP_TEST_DB_PASSWORD
with_database=
if [ "${1-}" = --database ]; then
    with_database=yes
    shift
fi

remove_sandbox() { # DIRECTORY; its drive in memory and its database are targets of links
    local memory database
    memory=$(readlink "$1/memory" || true)
    database=$(readlink "$1/database" || true)
    rm -rf --one-file-system "$1" ${memory:+"$memory"} ${database:+"$database"}
}

clean_up() {
    trap '' INT TERM
    stop_database
    WINEPREFIX=$run/prefix wineserver -k > /dev/null 2>&1 || true
    WINEPREFIX=$run/prefix wineserver -w > /dev/null 2>&1 || true
    for place in full ntfs; do
        ! mountpoint -q "$run/$place" || umount "$run/$place" || umount --lazy "$run/$place" || true
    done
    remove_sandbox "$run"
}

# Cleans up when this script was killed before it could; ctest does that at Ctrl+C. Nobody's child, so
# not killed with the others.
guard() {
    trap '' INT TERM HUP
    exec 6< "$run/lock" 7>&-
    flock 6 # held for as long as the script lives
    [ ! -d "$run" ] || clean_up
}

drive() { # LETTER DIRECTORY VARIABLE
    ln -sfn "$2" "$run/prefix/dosdevices/$1:"
    export "$3=${1^}:\\"
}

mkdir -p "$cache/sandboxes"
exec 8> "$cache/sandboxes/lock"
flock 8
for stale in "$cache"/sandboxes/*/; do # of runs that were killed: nobody holds their lock
    [ ! -d "$stale" ] || flock --nonblock "$stale/lock" true || continue
    [ ! -d "$stale" ] || remove_sandbox "${stale%/}"
done
run=$(mktemp -d "$cache/sandboxes/XXXXXX")
exec 7> "$run/lock"
flock 7
exec 8>&-
(guard < /dev/null > /dev/null 2>&1 &)
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
export ZOP_WINEPREFIX=$run/prefix
"$here/wine-prefix.sh" "$ZOP_WINEPREFIX" 7>&-
# Guards the ends of heap blocks: the tests' operator delete stops at one that was overwritten.
for program in runtime config security relocation api tools; do
    printf '\n[Software\\\\Microsoft\\\\Windows NT\\\\CurrentVersion\\\\Image File Execution Options\\\\%s_tests.exe]\n"GlobalFlag"=dword:00000010\n' \
        "$program"
done >> "$ZOP_WINEPREFIX/system.reg"

mkdir "$run/full" "$run/ntfs"
if [ -w /dev/shm ] && [ "$(stat -c %d /dev/shm)" != "$(stat -c %d "$run")" ]; then
    memory=$(mktemp -d /dev/shm/zop.XXXXXX)
    ln -s "$memory" "$run/memory"
    drive t "$memory" ZOP_TEST_TMPFS_DRIVE
fi
if [ -n "$mounts" ] && mount -t tmpfs -o size=1m,mode=755 none "$run/full" 2> /dev/null; then
    drive u "$run/full" ZOP_TEST_FULL_DRIVE
fi
if [ -n "$mounts" ] && [ -c /dev/fuse ] && command -v mkfs.ntfs ntfs-3g > /dev/null; then
    truncate -s 64M "$run/ntfs.image"
    if mkfs.ntfs -q -F "$run/ntfs.image" > /dev/null 2>&1 &&
        ntfs-3g -o streams_interface=windows "$run/ntfs.image" "$run/ntfs" > /dev/null 2>&1 7>&-; then
        drive n "$run/ntfs" ZOP_TEST_NTFS_DRIVE
    fi
fi
if [ -n "$with_database" ]; then
    # Not below the cache, which the server's user may be kept out of; in memory it is faster, too.
    database=$(mktemp -d /dev/shm/zop.XXXXXX 2> /dev/null || mktemp -d -t zop.XXXXXX)
    ln -s "$database" "$run/database"
    start_database "$database" || fail "The database server does not start (see above)."
fi
status=0
"$@" 7>&- || status=$?
exit "$status"
