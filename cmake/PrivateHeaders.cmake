# mirel_private_headers(<target> [<folder>])
# Has each header of <folder> (src, as seen from the target's own folder), which only the target's sources include,
# compile alone with what those sources see. It is built with the headers that everybody may include, by
# all_verify_interface_header_sets. Headers of Objective-C++ are left out: that check takes C++ alone.
function(mirel_private_headers target)
  set(folder src)
  if(ARGC GREATER 1)
    set(folder ${ARGV1})
  endif()
  get_target_property(own_folder ${target} SOURCE_DIR)
  cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY ${own_folder} NORMALIZE)
  file(GLOB headers CONFIGURE_DEPENDS ${folder}/*.h)
  if(NOT headers)
    message(FATAL_ERROR "${target} has no private headers in ${folder}.")
  endif()
  cmake_path(RELATIVE_PATH folder BASE_DIRECTORY ${PROJECT_SOURCE_DIR} OUTPUT_VARIABLE name)
  string(REGEX REPLACE "/$" "" name "private_headers_${name}")
  string(MAKE_C_IDENTIFIER ${name} name)
  # Nobody links this library, so its headers are nobody's interface.
  add_library(${name} INTERFACE EXCLUDE_FROM_ALL)
  target_sources(${name} INTERFACE FILE_SET HEADERS BASE_DIRS ${folder} FILES ${headers})
  target_include_directories(${name} INTERFACE ${folder} $<TARGET_PROPERTY:${target},INCLUDE_DIRECTORIES>)
  target_compile_definitions(${name} INTERFACE $<TARGET_PROPERTY:${target},COMPILE_DEFINITIONS>)
endfunction()
