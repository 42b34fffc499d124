# headers.sh COMPILER: every public header compiles alone, without a warning, from C++11 up, and
# brings no Boost header along.
source "$(dirname "$0")/common.sh"

compile() {
  local header=$1
  shift
  echo "#include <$header>" | "$compiler" -x c++ -I "$PREFIX/include" "$@" -
}

compiler=$1
headers=$(cd "$PREFIX/include" && ls korvex/*.h qmx/*.h)
for header in korvex/ShmCommon.h korvex/ShmBatch.h korvex/Channel.h korvex/ShmWriter.h \
  korvex/Status.h \
  qmx/error.h qmx/log.h qmx/sink.h qmx/string.h qmx/trace.h; do
  grep -qx "$header" <<< "$headers" || fail "$header is not installed"
done
for header in $headers; do
  for standard in 11 14 17 20; do
    compile "$header" -std=c++$standard -fsyntax-only -pedantic \
      -Wall -Wextra -Wconversion -Wshadow -Werror || fail "$header with C++$standard"
  done
  needed=$(compile "$header" -std=c++11 -M)
  ! grep "boost/" <<< "$needed" || fail "$header needs Boost's headers"
done
