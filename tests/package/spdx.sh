# spdx.sh SOURCE: the document of a package that was made by hand follows the rules, and says what is
# in the package; one that says anything else is refused.
source "$(dirname "$0")/common.sh"

deb=$work/small_1.0_all.deb
mkdir -p "$work/small/DEBIAN" "$work/small/usr/share/small"
echo data > "$work/small/usr/share/small/data"
echo more > "$work/small/usr/share/small/more"
ln -s data "$work/small/usr/share/small/link"
printf '%s\n' "Package: small" "Version: 1.0" "Architecture: all" \
  "Maintainer: nobody <nobody@small.invalid>" "Description: small" > "$work/small/DEBIAN/control"
dpkg-deb --root-owner-group --build "$work/small" "$deb" > "$work/log"
cat > "$work/small_1.0_all.buildinfo" << 'END'
Source: small
Version: 1.0
Installed-Build-Depends:
 dash (= 0.5.12-2),
 libc6 (= 2.36-9+deb12u14)
Environment:
 SOURCE_DATE_EPOCH="86400"
END

describe() { python3 -B "$1/packaging/spdx.py" "$work"/*.buildinfo "$deb"; }
check() { python3 -B "$here/check_spdx.py" "$work/document" "$deb"; }

describe "$1" > "$work/document"
expect "the check of the document" "$(check)" \
  "2 files in 1 packages, 4 packages: as described"
for line in '"created": "1970-01-02T00:00:00Z"' '"versionInfo": "2.36-9+deb12u14"' \
  '"fileName": "./usr/share/small/data"' '"licenseDeclared": "NONE"'; do
  grep -qF "$line" "$work/document" || fail "the document has no $line"
done
describe "$1" | cmp - "$work/document" || fail "described twice, it is described differently"

# refuses WHAT SCRIPT: a document that the script for sed has changed.
mv "$work/document" "$work/right"
refuses() {
  sed "$2" "$work/right" > "$work/document"
  ! cmp -s "$work/document" "$work/right" || fail "nothing was changed: $2"
  ! check > "$work/log" || fail "it takes a document with $1"
}
refuses "another version of SPDX" 's/SPDX-2.3/SPDX-2.2/'
refuses "a file's digest changed" 's/\("checksumValue": "\)\(.\)\([0-9a-f]*\)/\1\3\2/'
refuses "a file left out" 's/CONTAINS/DESCRIBES/'
refuses "a name that is used twice" 's/SPDXRef-BuiltWith-dash/SPDXRef-BuiltWith-libc6/'
refuses "a relation to nothing" 's/"relatedSpdxElement": "SPDXRef-Source-small"/"relatedSpdxElement": "SPDXRef-nobody"/'
refuses "nothing said of the build" 's/BUILD_DEPENDENCY_OF/DESCRIBES/'
