# libraries.sh: names, version links and needed libraries.
source "$(dirname "$0")/common.sh"

# dynamic FILE TAG: the values of a tag of the dynamic section.
dynamic() {
  readelf -d "$1" | sed -nE "s/.*\($2\).*\[(.*)\]$/\1/p"
}

for library in korvex qmx; do
  file=$LIBDIR/lib$library.so
  expect "the name in $file" "$(dynamic "$file" SONAME)" "lib$library.so.0.1"
  expect "the file behind $file" "$(basename "$(realpath "$file")")" "lib$library.so.0.1.0"
  [ "$(realpath "$file")" = "$(realpath "$file.0.1")" ] || fail "$file and $file.0.1 differ"
  ! dynamic "$file" NEEDED | grep boost || fail "$file needs the libraries above"
done
# A process that unloaded and loaded it again would draw the same identifiers twice.
readelf --wide -d "$LIBDIR/libkorvex.so" | grep -q 'FLAGS_1.*NODELETE' ||
  fail "libkorvex can be unloaded"

dynamic "$LIBDIR/libkorvex.so" NEEDED | grep -qx libqmx.so.0.1 ||
  fail "libkorvex does not need libqmx"

# The library finds its platform beside itself, without help from the program or the environment.
expect "the platform that libkorvex finds" \
  "$(ldd "$LIBDIR/libkorvex.so" | sed -nE 's/.*libqmx\.so\.0\.1 => (.*) \(.*/\1/p')" \
  "$LIBDIR/libqmx.so.0.1"
