# Read in addition by the builds that try mutants. Makes one small change cheap to build; nothing of
# it changes what the programs do.

# A test program need not be linked again when only the inside of the shared library changed.
set(CMAKE_LINK_DEPENDS_NO_SHARED ON)

find_program(KORVEX_FAST_LINKER NAMES ld.lld ld.gold)
if(KORVEX_FAST_LINKER MATCHES lld)
  add_link_options(-fuse-ld=lld)
elseif(KORVEX_FAST_LINKER MATCHES gold)
  add_link_options(-fuse-ld=gold)
endif()

# Other people's headers take most of the time of every test's unit. Those of the library need so few
# that reading them precompiled takes longer.
function(korvex_precompile)
  set(standard <algorithm> <chrono> <functional> <memory> <ostream> <queue> <sstream> <string>
    <thread> <vector>)
  set(boost <boost/date_time/posix_time/posix_time_types.hpp>
    <boost/interprocess/ipc/message_queue.hpp>)
  set(gtest <gmock/gmock.h> <gtest/gtest.h>)
  target_precompile_headers(korvex_unit_tests PRIVATE ${standard} ${boost} ${gtest})
  target_precompile_headers(korvex_property_tests PRIVATE ${standard} ${boost} <rapidcheck.h>)
endfunction()
cmake_language(DEFER CALL korvex_precompile)
