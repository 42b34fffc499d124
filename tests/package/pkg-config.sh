# pkg-config.sh COMPILER: a compiler call as in a makefile of a C++11 product.
source "$(dirname "$0")/common.sh"
export PKG_CONFIG_PATH=$LIBDIR/pkgconfig

"$1" -std=c++11 -Wall -Wextra -Werror "$here/consumer/main.cpp" -o "$work/consumer" \
  $(pkg-config --cflags --libs korvex) -Wl,-rpath,"$(pkg-config --variable=libdir korvex)"
expect "the consumer's output" "$("$work/consumer")" "$consumer_output"
expect "the version" "$(pkg-config --modversion korvex)" "0.1.0"
expect "the folder of the libraries" \
  "$(realpath "$(pkg-config --variable=libdir korvex)")" "$LIBDIR"
