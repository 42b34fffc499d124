# symbols.sh: each library exports exactly the names that are written down beside this script. A new
# public name is added there by hand.
source "$(dirname "$0")/common.sh"

# Overloads are one name; a parameter list is cut off.
exported_names() {
  nm -DC --defined-only --without-symbol-versions "$1" |
    sed -E 's/^[0-9a-f]+ . //; s/\(.*$//; s/\[abi:cxx11\]//' | sort -u
}

for library in korvex qmx; do
  exported_names "$LIBDIR/lib$library.so" > "$work/found"
  grep -v '^#' "$here/exported-$library.txt" | sort -u > "$work/expected"
  diff -u "$work/expected" "$work/found" ||
    fail "lib$library.so exports other names (+ are too many, - are missing)"
done

# A second version of the library in the same process defines other names.
without_version=$(nm -D --defined-only "$LIBDIR/libkorvex.so" | grep -v '@@KORVEX_0\.1$' |
  grep -vE ' A KORVEX_0\.1$' || true)
[ -z "$without_version" ] || fail "libkorvex.so has names without its version: $without_version"
