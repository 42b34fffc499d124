# build-type.sh SOURCE COMPILER: without a word the tree is built with optimisation and debug
# information; what was asked for holds, and so does what a project around it decides.
source "$(dirname "$0")/common.sh"
unset CMAKE_BUILD_TYPE

source_tree=$1 compiler=$2
options=(-G Ninja -DCMAKE_CXX_COMPILER="$compiler" -DKORVEX_BUILD_TESTS=OFF -DKORVEX_BUILD_TOOLS=OFF)

# build_type SOURCE ARGUMENT...: the build type of a fresh build folder.
build_type() {
  local source=$1 build
  shift
  build=$(mktemp -d "$work/build-XXXXXX")
  cmake -S "$source" -B "$build" "${options[@]}" "$@" > "$work/log" 2>&1 || fail "$(cat "$work/log")"
  sed -n 's/^CMAKE_BUILD_TYPE:[A-Z]*=//p' "$build/CMakeCache.txt"
}

expect "the default build type" "$(build_type "$source_tree")" RelWithDebInfo
expect "the build type asked for" "$(build_type "$source_tree" -DCMAKE_BUILD_TYPE=Debug)" Debug

mkdir "$work/host"
cat > "$work/host/CMakeLists.txt" << END
cmake_minimum_required(VERSION 3.21)
project(host LANGUAGES CXX)
add_subdirectory($source_tree korvex)
END
expect "the build type inside another project" "$(build_type "$work/host")" ""
