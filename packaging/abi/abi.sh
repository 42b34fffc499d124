#!/usr/bin/env bash
# What programs that were built with the libraries rely on, and how it is written down:
#   abi.sh check LIBRARY HEADERS...   compares a library with its dump; says what no longer fits
#   abi.sh update BUILD               writes the dumps and packaging/debian/*.symbols from a build;
#                                     refuses to once that would break programs built with a release
# HEADERS are the folders of the public headers: types that are declared elsewhere may change.
set -euo pipefail

kHere=$(dirname "$(realpath "${BASH_SOURCE[0]}")")
kSource=$(realpath "$kHere/../..")
readonly kLibraries="src/libkorvex receiver/libkorvex-receiver platform/libqmx"

work=$(mktemp -d "${TMPDIR:-/tmp}/korvex-abi-XXXXXX")
trap 'rm -rf "$work"' EXIT

# dump LIBRARY HEADERS...: the exported functions, and every type that they lead to.
dump() {
  local library=$1 folder options=()
  shift
  for folder in "$@"; do options+=(--headers-dir "$folder"); done
  abidw "${options[@]}" --drop-private-types --drop-undefined-syms --exported-interfaces-only \
    --no-comp-dir-path --no-corpus-path --no-elf-needed --no-parameter-names --no-show-locs \
    --no-write-default-sizes "$library"
}

dump_of() { echo "$kHere/$(basename "$1" .so).abi.gz"; }

check() {
  gunzip -c "$(dump_of "$1")" > "$work/expected"
  dump "$@" > "$work/found"
  # What is only new breaks nobody; a change of any kind that remains does.
  abidiff --no-added-syms "$work/expected" "$work/found"
}

# A dump that says the same stays as it is: the order in it depends on the build.
write_dump() { # library headers...
  gunzip -c "$(dump_of "$1")" > "$work/expected" 2> /dev/null || true
  dump "$@" > "$work/found"
  abidiff "$work/expected" "$work/found" > /dev/null 2>&1 ||
    gzip -9nc "$work/found" > "$(dump_of "$1")"
}

# symbols LIBRARY PACKAGE VERSION: its names as the packages' builds expect them. Those that were known
# keep the version that they came with. The names before mangling are the same on every architecture.
symbols() {
  local folder=$work/package/usr/lib
  mkdir -p "$folder"
  cp "$1" "$folder/$(basename "$1").$3"
  dpkg-gensymbols -q -t -c0 -p"$2" -P"$work/package" -v"$3" -O"$work/mangled"
  head -n 1 "$work/mangled"
  echo "* Build-Depends-Package: libkorvex-dev"
  sed -En 's/^ (_Z[^ ]*)/ (c++)"\1"/; /^ /p' "$work/mangled" | c++filt | LC_ALL=C sort -u
  rm -r "$work/package" "$work/mangled"  # which would be the basis of the next
}

# Whether a version with the same names of libraries has been released.
is_released() { # version
  sed -En 's/^korvex \(([^)]*)\.[^.)]*\) ([^;]*);.*/\1 \2/p' "$kSource/packaging/debian/changelog" |
    grep -v ' UNRELEASED$' | cut -d ' ' -f 1 | grep -qxF "${1%.*}"
}

update() {
  local build version library name headers package
  build=$(realpath "$1")
  version=$(dpkg-parsechangelog -l "$kSource/packaging/debian/changelog" -S Version)
  headers=$(ls -d {"$kSource","$build"}/{include,receiver/include,platform/include})
  for library in $kLibraries; do
    is_released "$version" || break
    # shellcheck disable=SC2086
    check "$build/$library.so" $headers && continue
    echo "$library.so breaks programs built with a released ${version%.*}; raise the minor version" >&2
    return 1
  done
  for library in $kLibraries; do
    name=$(basename "$library")
    # shellcheck disable=SC2086
    write_dump "$build/$library.so" $headers
    package=$name${version%.*}
    (cd "$kSource/packaging" && symbols "$build/$library.so" "$package" "$version" > "$work/symbols")
    mv "$work/symbols" "$kSource/packaging/debian/$package.symbols"
  done
}

case ${1:-} in
  check | update) "$@" ;;
  *)
    echo "usage: abi.sh check LIBRARY HEADERS... | update BUILD" >&2
    exit 2
    ;;
esac
