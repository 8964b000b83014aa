# Under the sanitizers, where nothing is given to users, clang links with lld where it is installed. The system's linker
# takes several times as long.
include(CheckLinkerFlag)
if(NOT APPLE AND CMAKE_CXX_COMPILER_ID MATCHES "Clang" AND CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
  check_linker_flag(CXX -fuse-ld=lld MIREL_HAVE_LLD)
  if(MIREL_HAVE_LLD)
    add_link_options(-fuse-ld=lld)
  endif()
endif()
