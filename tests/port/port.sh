#!/usr/bin/env bash
# port.sh ARCHITECTURE PACKAGE...: builds everything for another machine, with these packages of its
# Debian, and runs the tests that need no more than an emulated process. What is skipped, and why,
# is in skipped.txt.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

readonly kLabels='^(unit|property|fuzz)$'
readonly kTargets=(korvexd korvex_tool tests/unit/all tests/property/all tests/fuzz/all)
readonly kSkipped=tests/port/skipped.txt
readonly kJobs=${KORVEX_JOBS:-$(nproc)}

architecture=$1
shift
case $architecture in
  arm64) triplet=aarch64-linux-gnu ;;
  s390x) triplet=s390x-linux-gnu ;;
  *)
    echo "port.sh: unknown architecture '$architecture', expected arm64 or s390x" >&2
    exit 2
    ;;
esac
sysroot=$PWD/build/port/$architecture-root
build=build/port/$architecture

# The lines of the list that hold on this architecture.
skipped() { awk -v name="$architecture" '$1 == "all" || $1 == name' "$kSkipped"; }

# libc-bin has the locale: this machine's would be of another byte order.
tests/port/sysroot.sh "$architecture" "$sysroot" "$@" libc-bin
cmake --preset dev -B "$build" --toolchain tests/port/toolchain.cmake --log-level=WARNING \
  -DKORVEX_TRIPLET=$triplet -DKORVEX_EMULATOR="qemu-${triplet%%-*}-static" \
  -DKORVEX_SYSROOT="$sysroot" > /dev/null
cmake --build "$build" -j "$kJobs" --target "${kTargets[@]}"

echo "== skipped on $architecture, and why"
skipped | sed 's/^[^ ]* */  /'
patterns="^($(skipped | awk '{ print $2 }' | paste -s -d '|'))\$"
ctest --test-dir "$build" -L "$kLabels" -E "$patterns" -j "$kJobs" --output-on-failure \
  --no-tests=error --timeout 600
