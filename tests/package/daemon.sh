# daemon.sh SOURCES COMPILER [LAUNCHER]: the daemon builds with the installed receiver package alone,
# and runs.
source "$(dirname "$0")/common.sh"

cp -r "$1/tools" "$work/tools" # away from the rest of the tree
cmake -S "$here/daemon" -B "$work/build" -G Ninja -DCMAKE_CXX_COMPILER="$2" \
  -DCMAKE_CXX_COMPILER_LAUNCHER="${3:-}" -DCMAKE_PREFIX_PATH="$PREFIX" \
  -DKORVEX_TOOLS="$work/tools" > "$work/log" || fail "$(cat "$work/log")"
cmake --build "$work/build" > "$work/log" || fail "$(tail -n 40 "$work/log")"
"$work/build/korvexd" --version | grep -qx "korvexd outside" || fail "the daemon does not run"
