#!/usr/bin/env bash
# sysroot.sh ARCHITECTURE FOLDER PACKAGE...: unpacks Debian packages of another architecture into a
# folder, with everything that they need.
#
# Installed beside this machine's own (dpkg --add-architecture), both would have to be of the same
# version: that would upgrade this machine, or fail. So apt gets a state of its own, in which
# nothing is installed, and only fetches. Needs no root.
set -euo pipefail

architecture=$1 folder=$2
shift 2

done_mark=$folder/.complete
[ "$(cat "$done_mark" 2>/dev/null)" != "$*" ] || exit 0

work=$(mktemp -d "${TMPDIR:-/tmp}/korvex-sysroot-XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/state/lists/partial" "$work/cache/archives/partial"
: > "$work/status"
cat > "$work/apt.conf" <<TEXT
APT::Architecture "$architecture";
#clear APT::Architectures;
APT::Architectures { "$architecture"; };
APT::Sandbox::User "";
Acquire::Languages "none";
Dir::State "$work/state";
Dir::State::status "$work/status";
Dir::Cache "$work/cache";
TEXT
export APT_CONFIG=$work/apt.conf

apt-get -qq update
apt-get -qq install --yes --no-install-recommends --download-only "$@"

rm -rf "$folder"
mkdir -p "$folder"
for package in "$work"/cache/archives/*.deb; do
  dpkg-deb -x "$package" "$folder"
done
# Some libraries are links to absolute paths, which would lead to this machine's.
find "$folder" -type l -lname '/*' | while read -r link; do
  ln -snrf "$folder$(readlink "$link")" "$link"
done
echo "$*" > "$done_mark"
