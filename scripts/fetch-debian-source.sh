#!/usr/bin/env bash
# PACKAGE DIRECTORY: downloads the upstream source of a Debian package, prints the path of the tarball.
# Works beside the machine's own apt set-up: no source entries are added to it.
set -euo pipefail
package=$1 target=$2
private=$(mktemp -d)
trap 'rm -rf "$private"' EXIT
mkdir -p "$target" "$private/lists/partial" "$private/cache/archives/partial"
apt=(-o "Dir::Etc::SourceList=$private/sources.list" -o Dir::Etc::SourceParts=-
    -o "Dir::State::Lists=$private/lists" -o "Dir::Cache=$private/cache"
    -o APT::Sandbox::User=root -o Acquire::Retries=2 -o APT::Update::Error-Mode=any -qq)
. /etc/os-release

source_lines() { # the mirrors of the machine's own packages, asked for sources
    apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' | sort -u |
        grep -E " $VERSION_CODENAME(-updates|-security)? main$" |
        sed 's|^|deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] |' || true
}
source_lines > "$private/sources.list"
if [ ! -s "$private/sources.list" ]; then # the machine has no package lists yet
    as_root=()
    [ "$(id -u)" = 0 ] || as_root=(sudo -n)
    "${as_root[@]}" apt-get update -qq >&2
    source_lines > "$private/sources.list"
fi
apt-get "${apt[@]}" update >&2
cd "$target"
# A version can be listed and not held (seen with the newest security version): the next older one then.
for version in $(apt-cache "${apt[@]}" showsrc --only-source "$package" | sed -n 's/^Version: //p' | sort -urV); do
    if apt-get "${apt[@]}" source --download-only --only-source "$package=$version" >&2; then
        upstream=${version#*:}
        find "$PWD" -name "${package}_${upstream%-*}.orig.tar.*" ! -name '*.asc'
        exit 0
    fi
done
echo "No version of the source of $package could be downloaded." >&2
exit 1
