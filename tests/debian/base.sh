#!/usr/bin/env bash
# base.sh ARCHIVE: a bare Debian 12 as a tar archive, from where this machine's own packages come.
set -euo pipefail

readonly kRelease=bookworm

# The archive's URIs and suites, as this machine's apt knows them.
debian_suites() {
  # shellcheck disable=SC2016
  apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' \
    'Identifier: Packages' 'Origin: Debian' | sort -u
}

archive=$(realpath -m "$1")
work=$(mktemp -d /tmp/korvex-base-XXXXXX)
trap 'rm -rf --one-file-system "$work"' EXIT

suites=$(debian_suites | grep " $kRelease.* main\$") || {
  echo "base.sh: apt knows no Debian $kRelease; run apt-get update" >&2
  exit 1
}
mirror=$(awk -v release=$kRelease '$2 == release { print $1; exit }' <<< "$suites")
debootstrap --variant=minbase $kRelease "$work/root" "$mirror" > "$work/log" 2>&1 || {
  tail -n 20 "$work/log" >&2
  exit 1
}
awk '{ print "deb", $0 }' <<< "$suites" > "$work/root/etc/apt/sources.list"
# With the settings of this machine's apt.
apt-config dump | grep -E '^Acquire::[^"]*"[^"]+";$' > "$work/root/etc/apt/apt.conf.d/machine"
rm -f "$work"/root/var/cache/apt/archives/*.deb

mkdir -p "$(dirname "$archive")"
tar -cf "$archive.new" -C "$work/root" .
mv "$archive.new" "$archive"
