# Under the sanitizers, where nothing is given to users, clang reads the headers of the C++ library once for all sources
# of the layers and the host, and for what the command line prints with; the rest of it, and the files of recordings, are
# optimised in another way.
# In all other builds each source includes what it uses, or does not compile. So it does on macOS: there `platform` has
# sources in Objective-C++, which would need headers read for that language, and standard_headers has none.
if(APPLE OR NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang" OR NOT CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
  return()
endif()

add_library(standard_headers OBJECT tests/test_headers.cpp)
target_precompile_headers(standard_headers PRIVATE <algorithm> <array> <functional> <map> <memory> <mutex> <optional>
  <span> <string> <string_view> <utility> <variant> <vector>)
set(targets cli_output)
foreach(folder IN ITEMS platform bridge framework provider token host host/recording)
  get_property(found DIRECTORY ${PROJECT_SOURCE_DIR}/${folder} PROPERTY BUILDSYSTEM_TARGETS)
  list(APPEND targets ${found})
endforeach()
list(REMOVE_ITEM targets recording_file)
foreach(target IN LISTS targets)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "STATIC_LIBRARY")
    target_precompile_headers(${target} REUSE_FROM standard_headers)
  endif()
endforeach()
