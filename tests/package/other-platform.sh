# other-platform.sh COMPILER: a platform library with the same symbols, put in front of ours, takes
# the calls of a library that was built long before.
source "$(dirname "$0")/common.sh"
export PKG_CONFIG_PATH=$LIBDIR/pkgconfig

flags="-std=c++11 -Wall -Wextra -Werror $(pkg-config --cflags korvex)"
libraries="$(pkg-config --libs korvex) -Wl,-rpath,$LIBDIR"
expected="other platform: ShmBatch: bufferSize=107"
other=$work/libother_platform.so
"$1" $flags -fPIC -shared "$here/other_platform/OtherPlatform.cpp" -o "$other"

"$1" $flags "$here/consumer/main.cpp" -o "$work/preloading" $libraries
! "$work/preloading" | grep "other platform" || fail "the other platform got lines unasked"
LD_PRELOAD=$other "$work/preloading" > "$work/lines"
grep -qx "$expected" "$work/lines" || fail "preloaded, it got no line: $(cat "$work/lines")"

"$1" $flags "$here/consumer/main.cpp" -o "$work/linking" -Wl,--no-as-needed "$other" $libraries
"$work/linking" > "$work/lines"
grep -qx "$expected" "$work/lines" || fail "linked first, it got no line: $(cat "$work/lines")"
