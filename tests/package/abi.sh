# abi.sh SOURCE COMPILER OBJECTS: programs that were built with the release that is written down
# work with these libraries; a library that would break them is refused. The objects are those of
# libqmx, with semicolons between them.
source "$(dirname "$0")/common.sh"

source_tree=$1 compiler=$2
IFS=';' read -ra objects <<< "$3"
abi=$source_tree/packaging/abi/abi.sh

for library in korvex korvex-receiver qmx; do
  "$abi" check "$LIBDIR/lib$library.so" "$PREFIX/include" > "$work/log" ||
    fail "lib$library.so breaks programs that were built with it; if that is meant, see
docs/compatibility.md: $(cat "$work/log")"
done

# link OBJECT...: a libqmx of these parts.
link() {
  "$compiler" -shared "$@" -Wl,--version-script="$source_tree/platform/qmx.map" \
    -Wl,-soname,libqmx.so.0.1 -lfmt -o "$work/libqmx.so"
}

# objects_without NAME
objects_without() { printf '%s\n' "${objects[@]}" | grep -v "/$1\.cpp\.o$"; }

# refuses WHAT PATTERN
refuses() {
  ! "$abi" check "$work/libqmx.so" "$PREFIX/include" > "$work/log" ||
    fail "it takes a library whose $1"
  grep -q "$2" "$work/log" || fail "it does not say that its $1: $(cat "$work/log")"
}

link "${objects[@]}"
"$abi" check "$work/libqmx.so" "$PREFIX/include" || fail "the parts alone are refused"

mkdir "$work/qmx"
sed 's/^  ov_status_t status_;/&\n  ov_status_t reserved_[2];/' "$PREFIX/include/qmx/error.h" \
  > "$work/qmx/error.h"
"$compiler" -std=c++17 -g -fPIC -I "$work" -I "$PREFIX/include" -c \
  "$source_tree/platform/src/Error.cpp" -o "$work/Error.o"
# shellcheck disable=SC2046
link "$work/Error.o" $(objects_without Error)
refuses "exception grew" "type size changed"

# A tree of its own, whose build holds that library.
tree=$work/tree
mkdir -p "$tree"/build/{src,receiver,platform,include,receiver/include,platform/include}
cp -r "$source_tree/packaging" "$tree"
ln -s "$source_tree"/{include,receiver,platform} "$tree"
cp "$LIBDIR/libkorvex.so" "$tree/build/src"
cp "$LIBDIR/libkorvex-receiver.so" "$tree/build/receiver"
cp "$work/libqmx.so" "$tree/build/platform"

# updated_once_it_is DISTRIBUTION
updated_once_it_is() {
  sed -i "1s/) [^;]*;/) $1;/" "$tree/packaging/debian/changelog"
  "$tree/packaging/abi/abi.sh" update "$tree/build" > "$work/log" 2>&1
}

! updated_once_it_is unstable || fail "a break of a release can be written down"
grep -q "raise the minor version" "$work/log" || fail "it does not say what to do: $(cat "$work/log")"
diff -r "$source_tree/packaging" "$tree/packaging" --exclude changelog ||
  fail "a refused update changes what is written down"
updated_once_it_is UNRELEASED || fail "before its release it cannot be changed: $(cat "$work/log")"
"$tree/packaging/abi/abi.sh" check "$work/libqmx.so" "$PREFIX/include" > "$work/log" ||
  fail "the update wrote something else down: $(cat "$work/log")"

# shellcheck disable=SC2046
link $(objects_without String)
refuses "function is gone" "qmxstrcpy"
