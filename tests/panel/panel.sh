# A stand-in panel for scripts that run in a sandbox with a database; sourced after common.sh.
bin=$root/build/release/bin
[ -n "${ZOP_TEST_TMPFS_DRIVE-}" ] || fail "There is no second drive: /dev/shm cannot be written to." \
    "Mount a tmpfs there (mount -t tmpfs none /dev/shm) and run this again."
[ -n "${ZOP_TEST_DB_PORT-}" ] || fail "There is no database server." "Run scripts/setup.sh, then this again."
memory=$(readlink -f "$ZOP_WINEPREFIX/dosdevices/t:")

wine() { "$root/scripts/wine.sh" "$@" < /dev/null; }
panelctl() { wine "$bin/panelctl.exe" "$@"; }
unix_path() { # DRIVE:\PATH
    local path=${1//\\//}
    printf '%s/dosdevices/%s' "$ZOP_WINEPREFIX" "${path,}"
}

# BASE DOMAINS FILES: makes a panel and runs its configuration service, which goes with the sandbox.
# Sets zopctl: where the panel has it.
start_panel() {
    local made
    mkdir -p "$(unix_path "$1")"
    made=$(panelctl make "$@")
    zopctl=$(unix_path "${made%$'\r'}")
    wine "$bin/zopconfigsvc.exe" --console > "$memory/service.log" 2>&1 &
    until grep -q 'listens on' "$memory/service.log"; do
        kill -0 $! 2> /dev/null || fail "$(cat "$memory/service.log")" "The configuration service does not run."
        sleep 0.05
    done
}
