# daemon.sh SOURCES COMPILER [LAUNCHER]: the daemon builds with the installed receiver package alone,
# and stores a stream.
source "$(dirname "$0")/common.sh"

# Away from the rest of the tree, but always in the same place, for a compiler cache's sake.
place=$PREFIX-daemon
rm -rf "$place"
mkdir -p "$place"
cp -r "$1/tools" "$place/tools"
cmake -S "$here/daemon" -B "$place/build" -G Ninja -DCMAKE_CXX_COMPILER="$2" \
  -DCMAKE_CXX_COMPILER_LAUNCHER="${3:-}" -DCMAKE_PREFIX_PATH="$PREFIX" \
  -DKORVEX_TOOLS="$place/tools" > "$work/log" || fail "$(cat "$work/log")"
cmake --build "$place/build" > "$work/log" || fail "$(tail -n 40 "$work/log")"
"$place/build/korvexd" --version | grep -qx "korvexd outside" || fail "the daemon does not run"

queue="korvex-outside-daemon-$$"
start_daemon "$place/build/korvexd" "$queue" "$work/stored"
head -c 3000000 /dev/urandom > "$work/data"
"$PREFIX/bin/korvex" send --quiet --queue "$queue" "$work/data" || fail "not stored and verified"
cmp "$work"/stored/*/data "$work/data" || fail "something else is stored"
