# headers.sh COMPILER [OPTION...]: every public header compiles alone, without a warning, from C++11
# up, and brings no Boost header along; the receiver's from C++17 up, and none of the libraries
# behind it.
source "$(dirname "$0")/common.sh"

compile() {
  local header=$1
  shift
  echo "#include <$header>" | "${compiler[@]}" -x c++ -I "$PREFIX/include" "$@" -
}

compiler=("$@")
headers=$(cd "$PREFIX/include" && ls korvex/*.h qmx/*.h)
receivers=$(cd "$PREFIX/include" && ls korvex/receiver/*.h)
for header in korvex/ShmCommon.h korvex/ShmBatch.h korvex/Channel.h korvex/ShmWriter.h \
  korvex/Status.h korvex/RecordType.h korvex/StreamGuard.h \
  qmx/error.h qmx/log.h qmx/sink.h qmx/string.h qmx/trace.h; do
  grep -qx "$header" <<< "$headers" || fail "$header is not installed"
done
for header in $headers; do
  for standard in 11 14 17 20 2b; do
    compile "$header" -std=c++$standard -fsyntax-only -pedantic \
      -Wall -Wextra -Wconversion -Wshadow -Werror || fail "$header with C++$standard"
  done
  needed=$(compile "$header" -std=c++11 -M)
  ! grep "boost/" <<< "$needed" || fail "$header needs Boost's headers"
done

for header in $receivers; do
  for standard in 17 20 2b; do
    compile "$header" -std=c++$standard -fsyntax-only -pedantic \
      -Wall -Wextra -Wconversion -Wshadow -Werror || fail "$header with C++$standard"
  done
  needed=$(compile "$header" -std=c++17 -M)
  ! grep -E "/(boost|spdlog|nlohmann|openssl|xxh)" <<< "$needed" || fail "$header needs the headers above"
done
