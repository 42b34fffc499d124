#!/usr/bin/env bash
# package.sh [--reproduce] [--only-build]: builds the Debian packages of the committed tree into
# build/package/debs, and checks them: lintian, what they contain, and what an administrator does
# with them in a bare Debian 12. --reproduce builds them a second time, elsewhere, as another user
# and at another time, and compares every byte.
set -euo pipefail
cd "$(dirname "$(realpath "${BASH_SOURCE[0]}")")/.."

readonly kOutput=$PWD/build/package
readonly kBuild=$kOutput/build
readonly kDebs=$kOutput/debs
readonly kBase=$kOutput/base/debian12.tar
readonly kAnotherUser=65534
readonly kJobs=${KORVEX_JOBS:-$(nproc)}
version=$(dpkg-parsechangelog -l packaging/debian/changelog -S Version)
architecture=$(dpkg --print-architecture)

step() { echo "== $*"; }

fail() {
  echo "./run package: $*" >&2
  exit 1
}

# Only what is committed is packaged: the result can be built again from the repository.
export_tree() { # folder
  local tree=$1/korvex-$version
  mkdir -p "$tree"
  git archive HEAD | tar -x -C "$tree"
  cp -r "$tree/packaging/debian" "$tree/debian"
}

build() {
  local log=$kOutput/build.log
  rm -rf "$kBuild"
  export_tree "$kBuild"
  # Debian's folder of links makes every compiler call go through the cache, where there is one.
  (cd "$kBuild/korvex-$version" && PATH=/usr/lib/ccache:$PATH LC_ALL=C.UTF-8 \
    DEB_BUILD_OPTIONS="nocheck parallel=$kJobs" nice dpkg-buildpackage -us -uc) > "$log" 2>&1 ||
    fail "the build failed; the end of $log is
$(tail -n 30 "$log" | cut -c 1-300)"
}

# The packages that people install, without those for debuggers.
collect() {
  rm -rf "$kDebs"
  mkdir -p "$kDebs"
  find "$kBuild" -maxdepth 1 -name '*.deb' ! -name '*-dbgsym_*' -exec cp -t "$kDebs" {} +
  (cd "$kDebs" && ls -sh --block-size=K ./*.deb)
}

describe() {
  local document=$kDebs/korvex_${version}_$architecture.spdx.json
  python3 -B packaging/spdx.py "$kBuild/korvex_${version}_$architecture.buildinfo" \
    "$kBuild"/*.deb > "$document"
  python3 -B tests/package/check_spdx.py "$document" "$kBuild"/*.deb
}

check_lintian() {
  lintian --allow-root --fail-on error,warning -EvIL +pedantic "$kBuild"/*.changes 2>&1 |
    grep -v '^N:' || [ "${PIPESTATUS[0]}" = 0 ] || fail "lintian found errors or warnings"
}

try_in_bare_system() {
  if [ "$(id -u)" = 0 ]; then
    nice tests/debian/bare.sh . "$kDebs" "$kBase"
  else
    echo "skipped: only root can make a bare system"
  fi
}

# rebuild FOLDER: from the source package alone. Files keep their real times: with shifted ones all
# would be younger than the change log, and none would keep its own.
rebuild() {
  cd "$1"
  umask 027
  export HOME=$1 TZ=Pacific/Kiritimati LANG=C LC_ALL=C CCACHE_DISABLE=1
  export DEB_BUILD_OPTIONS="nocheck parallel=$((kJobs + 1))"
  export PATH=/usr/sbin:/usr/bin:/sbin:/bin
  dpkg-source -x ./*.dsc elsewhere
  cd elsewhere
  NO_FAKE_STAT=1 nice faketime -f '+400d' dpkg-buildpackage -us -uc -b
}

# as_another COMMAND...: as another user where that is possible.
as_another() {
  if [ "$(id -u)" = 0 ]; then
    setpriv --reuid=$kAnotherUser --regid=$kAnotherUser --clear-groups "$@"
  else
    echo "not root: the second build is by the same user" >&2
    "$@"
  fi
}

reproduce() {
  local again log=$kOutput/rebuild.log
  again=$(mktemp -d /tmp/korvex-again-XXXXXX)
  # shellcheck disable=SC2064
  trap "rm -rf '$again'" EXIT
  cp "$kBuild"/*.dsc "$kBuild"/*.tar.xz "$again"
  [ "$(id -u)" != 0 ] || chown -R $kAnotherUser:$kAnotherUser "$again"
  export kJobs
  export -f rebuild
  # shellcheck disable=SC2016
  as_another bash -euc 'rebuild "$1"' rebuild "$again" > "$log" 2>&1 ||
    fail "the second build failed; the end of $log is
$(tail -n 30 "$log" | cut -c 1-300)"
  compare "$again"
}

compare() { # folder of the second build
  local package different=0 name
  for package in "$kBuild"/*.deb; do
    name=$(basename "$package")
    if cmp "$package" "$1/$name"; then
      echo "identical: $(sha256sum "$package" | cut -c 1-16) $name"
    else
      different=1
      diffoscope --text - --max-report-size 20000 "$package" "$1/$name" || true
    fi
  done
  [ $different = 0 ] || fail "the two builds differ"
}

reproducing=no checking=yes
for option in "$@"; do
  case $option in
    --reproduce) reproducing=yes ;;
    --only-build) checking=no ;;
    *)
      echo "usage: ./run package [--reproduce] [--only-build]" >&2
      exit 2
      ;;
  esac
done

[ "$(sed -n 's/^project(korvex VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)" = "$version" ] ||
  fail "packaging/debian/changelog says $version, CMakeLists.txt says another version"
git diff --quiet HEAD -- || echo "note: only what is committed is packaged; this tree has changes"
step "build $version for $architecture"
build
collect
if [ $checking = yes ]; then
  step "lintian"
  check_lintian
  step "an SPDX document of what they contain and were built with"
  describe
  step "in a bare Debian 12"
  try_in_bare_system
fi
if [ $reproducing = yes ]; then
  step "build again"
  reproduce
fi
echo "packages: ${kDebs#"$PWD"/}"
