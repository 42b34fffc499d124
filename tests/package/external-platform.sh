# external-platform.sh SOURCE COMPILER [LAUNCHER]: the library builds on a platform that is installed
# elsewhere, does not install a second one, and its package finds the first. Without the receiving
# library, which is optional. The programs would be installed so that they find that platform, too.
source "$(dirname "$0")/common.sh"

platform=$work/platform
mkdir -p "$platform"
(cd "$PREFIX" && find . -path '*qmx*' ! -type d | tar -cf - -T -) | tar -xf - -C "$platform"

# configure FOLDER ARGUMENT...
configure() {
  local build=$1
  shift
  cmake -S "$source_tree" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_CXX_COMPILER_LAUNCHER="$launcher" -DKORVEX_PLATFORM=external \
    -DKORVEX_BUILD_TESTS=OFF -DKORVEX_BUILD_RECEIVER=OFF -DKORVEX_BUILD_MAN=OFF "$@"
}

source_tree=$1 compiler=$2 launcher=${3:-}
if configure "$work/without" > "$work/log" 2>&1; then
  fail "it configures without a platform"
fi
grep -q qmxConfig.cmake "$work/log" || fail "the missing platform is not named: $(cat "$work/log")"

configure "$work/build" -DCMAKE_PREFIX_PATH="$platform"
cmake --build "$work/build"
cmake --install "$work/build" --prefix "$work/installed" > /dev/null
for absent in qmx receiver; do
  [ -z "$(find "$work/installed" -name "*$absent*")" ] || fail "$absent was installed as well"
done

cmake -S "$here/consumer" -B "$work/consumer" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
  -DCMAKE_PREFIX_PATH="$work/installed;$platform"
cmake --build "$work/consumer"
expect "the consumer's output" "$("$work/consumer/consumer")" "$consumer_output"

# What the installation writes into the programs is known without compiling them.
configure "$work/programs" -DCMAKE_PREFIX_PATH="$platform" -DKORVEX_BUILD_RECEIVER=ON \
  -DCMAKE_INSTALL_PREFIX="$work/usr" -DCMAKE_INSTALL_LIBDIR="$work/usr/lib/machine" > "$work/log"
for program in korvex korvexd; do
  expect "where the installed $program looks for its libraries" \
    "$(sed -n 's/.*NEW_RPATH "\(.*\)").*/\1/p' "$work/programs/tools/$program/cmake_install.cmake")" \
    "\\\$ORIGIN/../lib/machine:$platform/${LIBDIR#"$PREFIX"/}"
done
