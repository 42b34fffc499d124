# headers.sh COMPILER [OPTION...]: every public header compiles alone, without a warning, from C++11
# up, and brings no Boost header along; the receiver's from C++17 up, and none of the libraries
# behind it.
source "$(dirname "$0")/common.sh"

# compile OPTION...: checks the program on standard input.
compile() {
  "${compiler[@]}" -x c++ -I "$PREFIX/include" -fsyntax-only -pedantic \
    -Wall -Wextra -Wconversion -Wshadow -Werror "$@" -
}

# check_headers "HEADER..." "STANDARD..." FORBIDDEN: each alone with the oldest and the newest standard,
# where the standard library's headers include most and least; all together with every one.
check_headers() {
  local headers=$1 forbidden=$3 standards header standard
  read -ra standards <<< "$2"
  for header in $headers; do
    for standard in "${standards[0]}" "${standards[-1]}"; do
      echo "#include <$header>" | compile "-std=c++$standard" -MD -MF "$work/needed" ||
        fail "$header with C++$standard"
      ! grep -E "/($forbidden)" "$work/needed" || fail "$header needs the headers above"
    done
  done
  for standard in "${standards[@]}"; do
    printf '#include <%s>\n' $headers | compile "-std=c++$standard" ||
      fail "all headers with C++$standard"
  done
}

compiler=("$@")
headers=$(cd "$PREFIX/include" && ls korvex/*.h qmx/*.h)
receivers=$(cd "$PREFIX/include" && ls korvex/receiver/*.h)
for header in korvex/ShmCommon.h korvex/ShmBatch.h korvex/Channel.h korvex/ShmWriter.h \
  korvex/Status.h korvex/RecordType.h korvex/StreamGuard.h \
  qmx/error.h qmx/log.h qmx/sink.h qmx/string.h qmx/trace.h; do
  grep -qx "$header" <<< "$headers" || fail "$header is not installed"
done
check_headers "$headers" "11 14 17 20 2b" boost
check_headers "$receivers" "17 20 2b" "boost|spdlog|nlohmann|openssl|xxh"
