# What the scripts share; sourced, not run.
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export HOME=${HOME:-$(getent passwd "$(id -u)" | cut -d: -f6)}
# Outside the work tree, so that every clone on the machine shares it.
cache=${ZOP_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/zop}
template=$cache/wine-template

say() { printf '%s\n' "$*" >&2; }
fail() { # what went wrong, then what to do about it, a line each
    printf '%s\n' "$@" >&2
    exit 1
}

# Configures where that has not been done yet, or the presets have changed, and builds: PRESET [TARGET...]
build() {
    local preset=$1
    shift
    [ "$root/build/$preset/build.ninja" -nt "$root/CMakePresets.json" ] || (cd "$root" && cmake --preset "$preset")
    (cd "$root" && cmake --build --preset "$preset" -j "$(nproc)" ${1:+--target "$@"})
}

# Runs a command whose output matters only when it fails.
quietly() {
    local log
    log=$("$@" 2>&1 < /dev/null) || fail "$log" "Failed: $*"
}
