#!/usr/bin/env bash
# bare.sh SOURCE DEBS BASE: what an administrator does with the packages, in a bare Debian 12: the
# commands of the README, removal, purge, and building against them. Needs root; everything it
# mounts and starts is gone with it.
set -euo pipefail

source_tree=$(realpath "$1") debs=$(realpath "$2") base=$(realpath -m "$3")
here=$(dirname "$(realpath "${BASH_SOURCE[0]}")")

[ -e "$base" ] || "$here/base.sh" "$base"
root=$(mktemp -d /tmp/korvex-bare-XXXXXX)
trap 'rm -rf --one-file-system "$root"' EXIT
tar -xf "$base" -C "$root"
cp /etc/resolv.conf "$root/etc/resolv.conf"
cp -r "$debs" "$root/root/debs"
cp -r "$source_tree/packaging/debian/tests" "$root/root/tests"
cp "$source_tree/README.md" "$here/administer.sh" "$root/root/"

# Packages that were fetched once are fetched from here.
mkdir -p "$base.packages"

# Mounts and processes of their own: all of them end with the shell.
# shellcheck disable=SC2016
unshare --mount --pid --fork --kill-child bash -euc '
  mount -t proc proc "$1/proc"
  mkdir -p "$1/dev/shm"
  mount -t tmpfs -o mode=1777 tmpfs "$1/dev/shm"
  mount --bind "$2" "$1/var/cache/apt/archives"
  chroot "$1" env -i HOME=/root LC_ALL=C.UTF-8 PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    bash /root/administer.sh < /dev/null' bare "$root" "$base.packages"
