# Read by every script here. PREFIX and LIBDIR say where the installed tree lies.
set -euo pipefail

here=$(dirname "$(realpath "${BASH_SOURCE[0]}")")
work=$(mktemp -d "${TMPDIR:-/tmp}/korvex-package-XXXXXX")
trap 'rm -rf "$work"' EXIT

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# expect WHAT FOUND EXPECTED
expect() {
  [ "$2" = "$3" ] || fail "$1 is '$2', expected '$3'"
}

# start_daemon PROGRAM QUEUE FOLDER: runs it until the script ends.
start_daemon() {
  mkdir "$3"
  : > "$work/daemon.log" # may be read before the daemon has begun
  "$1" --queue "$2" --output "$3" 2> "$work/daemon.log" &
  daemon=$!
  trap 'kill "$daemon"; wait "$daemon" || true; rm -rf "$work"' EXIT
  await_log "serving $2,"
}

# await_log TEXT [LINES]: waits until so many lines of the daemon's log have it.
await_log() {
  for _ in $(seq 3000); do
    [ "$(grep -c "$1" "$work/daemon.log")" -ge "${2:-1}" ] && return
    sleep 0.02
  done
  fail "the daemon never logs '$1': $(cat "$work/daemon.log")"
}

# Configures and builds the project in a folder against the installed tree.
build_with_cmake() {
  local source=$1 compiler=$2 build=$3
  cmake -S "$source" -B "$build" -G Ninja -DCMAKE_CXX_COMPILER="$compiler" \
    -DCMAKE_PREFIX_PATH="$PREFIX" -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror"
  cmake --build "$build"
}

# The consumer's whole output.
consumer_output="two records: type=1, len=3, crc=38600999 and type=2, len=0
refused: Invalid timeout, specified value 0 was less than minimum allowed value of 1"
