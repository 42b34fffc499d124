# find-package.sh COMPILER: a C++11 project finds korvex, another one the platform alone.
source "$(dirname "$0")/common.sh"

build_with_cmake "$here/consumer" "$1" "$work/consumer"
grep -qx "korvex_DIR:PATH=$LIBDIR/cmake/korvex" "$work/consumer/CMakeCache.txt" ||
  fail "another korvex was found: $(grep korvex_DIR "$work/consumer/CMakeCache.txt")"
expect "the consumer's output" "$("$work/consumer/consumer")" "$consumer_output"

build_with_cmake "$here/platform_consumer" "$1" "$work/platform"
expect "the platform consumer's output" \
  "$("$work/platform/platform_consumer" 2>&1 | cut -d ' ' -f 2,4-)" "INFO code=3 hello"

# The package alone is enough of a hint: it knows where its platform lies.
cmake -S "$here/consumer" -B "$work/hinted" -G Ninja -DCMAKE_CXX_COMPILER="$1" \
  -Dkorvex_DIR="$LIBDIR/cmake/korvex"
