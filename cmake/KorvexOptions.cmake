# Targets that carry options to the targets that link them. Nothing here is global.

add_library(korvex_warnings INTERFACE)
target_compile_options(korvex_warnings INTERFACE
  -Wall -Wextra -Wconversion -Wshadow $<$<BOOL:${KORVEX_WERROR}>:-Werror>)
# These releases refuse the headers of Boost 1.74 otherwise. Later ones know no such option.
if(CMAKE_CXX_COMPILER_ID STREQUAL Clang AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 16
   AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 20)
  target_compile_options(korvex_warnings INTERFACE -Wno-enum-constexpr-conversion)
endif()
# Since this release clang complains of what std::stable_sort of libstdc++ 12 uses itself. What is
# deprecated in this tree the other compilers show.
if(CMAKE_CXX_COMPILER_ID STREQUAL Clang AND CMAKE_CXX_COMPILER_VERSION VERSION_GREATER_EQUAL 19)
  target_compile_options(korvex_warnings INTERFACE -Wno-deprecated-declarations)
endif()

add_library(korvex_sanitizers INTERFACE)
if(KORVEX_SANITIZE)
  # Without the check of virtual tables: it opens a pipe to look at an object's memory, and takes
  # the object for broken where a test leaves the process no descriptors.
  target_compile_options(korvex_sanitizers INTERFACE
    -fsanitize=${KORVEX_SANITIZE} -fno-sanitize=vptr -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  target_link_options(korvex_sanitizers INTERFACE -fsanitize=${KORVEX_SANITIZE})
endif()

# Makes a bug harder to exploit. Not with sanitizers, which check more themselves and cannot see
# through the C library's fortified functions.
add_library(korvex_hardening INTERFACE)
if(KORVEX_HARDENING AND NOT KORVEX_SANITIZE)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES CXX)
  set_target_properties(korvex_hardening PROPERTIES INTERFACE_POSITION_INDEPENDENT_CODE ON)
  target_compile_options(korvex_hardening INTERFACE
    -fstack-protector-strong "SHELL:-include ${CMAKE_CURRENT_LIST_DIR}/Fortify.h")
  target_link_options(korvex_hardening INTERFACE LINKER:-z,relro,-z,now,-z,noexecstack)
endif()

# What every target of this project is built with. Linked privately, so that it reaches no consumer.
add_library(korvex_options INTERFACE)
target_link_libraries(korvex_options INTERFACE
  $<BUILD_INTERFACE:korvex_warnings> $<BUILD_INTERFACE:korvex_sanitizers>
  $<BUILD_INTERFACE:korvex_hardening>)
target_compile_features(korvex_options INTERFACE cxx_std_17)
