# Targets that carry options to the targets that link them, and what the libraries have in common.
# Nothing here is global.

include(GenerateExportHeader)

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

# korvex_ship(target MAP file HEADERS folder...)
# A shared library as it is installed, with a file for pkg-config.
function(korvex_ship target)
  cmake_parse_arguments(arg "" "MAP" "HEADERS" ${ARGN})
  set(map ${CMAKE_CURRENT_BINARY_DIR}/${arg_MAP})
  configure_file(${arg_MAP} ${map} @ONLY)
  # -Bsymbolic binds the library to its own vtables and functions, even beside a second copy of it
  # (in a host's plug-in, say).
  target_link_options(${target} PRIVATE -Wl,--version-script=${map} -Wl,-Bsymbolic)
  set_target_properties(${target} PROPERTIES
    # The installed library finds what it needs beside itself, even in a moved tree, or in the
    # folder where an external platform was found.
    INSTALL_RPATH "$ORIGIN"
    INSTALL_RPATH_USE_LINK_PATH ON
    VERSION ${PROJECT_VERSION}
    SOVERSION ${KORVEX_ABI_VERSION}
    LINK_DEPENDS ${map})
  install(TARGETS ${target} EXPORT korvexTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(DIRECTORY ${arg_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  get_target_property(name ${target} OUTPUT_NAME)
  if(NOT name)
    set(name ${target})
  endif()
  file(RELATIVE_PATH KORVEX_INCLUDES_FROM_PKGCONFIG
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_FULL_INCLUDEDIR})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${name}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
    @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

# korvex_ship_program(target): a program as it is installed. It finds the libraries in the same tree,
# even a moved one, or in the folder where an external platform was found.
function(korvex_ship_program target)
  file(RELATIVE_PATH libraries ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(${target} PROPERTIES
    INSTALL_RPATH "$ORIGIN/${libraries}"
    INSTALL_RPATH_USE_LINK_PATH ON)
  install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endfunction()
