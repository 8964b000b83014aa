# The Objective-C++ of the macOS adapters: for macOS with the frameworks of the SDK, on Linux with GNUstep's Foundation
# and the double in tests/macos, for the tests. Include it in the top folder, before the folders that have such
# sources.
#
# Sets MIREL_HAVE_OBJC. When that is ON, the language OBJCXX is enabled with the flags of C++, and the interface
# target `objective_c` holds what such sources need for compiling and linking. On Linux the prefix header refers to a
# routine of the library apple_double, which every such program links too.

set(MIREL_HAVE_OBJC OFF)

# One set of warnings, sanitizers and rules for both languages.
macro(mirel_enable_objcxx)
  set(CMAKE_OBJCXX_FLAGS "${CMAKE_CXX_FLAGS}")
  foreach(configuration DEBUG RELEASE RELWITHDEBINFO MINSIZEREL)
    set(CMAKE_OBJCXX_FLAGS_${configuration} "${CMAKE_CXX_FLAGS_${configuration}}")
  endforeach()
  foreach(property STANDARD STANDARD_REQUIRED EXTENSIONS VISIBILITY_PRESET)
    set(CMAKE_OBJCXX_${property} ${CMAKE_CXX_${property}})
  endforeach()
  enable_language(OBJCXX)
  add_library(objective_c INTERFACE)
  target_compile_options(objective_c INTERFACE
    # Without an implementation a property is only a warning, and then a crash.
    $<$<COMPILE_LANGUAGE:OBJCXX>:-Werror=objc-property-implementation>)
  set(MIREL_HAVE_OBJC ON)
endmacro()

if(APPLE)
  mirel_enable_objcxx()
  target_compile_options(objective_c INTERFACE $<$<COMPILE_LANGUAGE:OBJCXX>:-fno-objc-arc>)
  # Some of the SDK's headers would define macros named check, require and verify.
  target_compile_definitions(objective_c INTERFACE __ASSERT_MACROS_DEFINE_VERSIONS_WITHOUT_UNDERSCORES=0)
  target_link_libraries(objective_c INTERFACE "-framework Foundation" "-framework Security")
  return()
endif()
if(NOT CMAKE_SYSTEM_NAME STREQUAL "Linux" OR NOT BUILD_TESTING)
  return()
endif()

# mirel_without_objc(<reason>): leaves this file.
macro(mirel_without_objc reason)
  message(STATUS "The macOS adapters are left out: ${reason}")
  return()
endmacro()

if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  set(MIREL_OBJCXX_COMPILER ${CMAKE_CXX_COMPILER})
else()
  include(cmake/LlvmVersions.cmake)
  mirel_llvm_suffixes(numbered)
  list(TRANSFORM numbered PREPEND clang++)
  find_program(MIREL_OBJCXX_COMPILER NAMES clang++ ${numbered})
  mark_as_advanced(MIREL_OBJCXX_COMPILER)
  string(TOUPPER "${CMAKE_BUILD_TYPE}" configuration)
  if("${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${configuration}}" MATCHES "-fsanitize")
    mirel_without_objc("under a sanitizer they need clang for everything")
  endif()
endif()
if(NOT MIREL_OBJCXX_COMPILER)
  mirel_without_objc("clang++ is missing (apt-get install clang)")
endif()

# The runtime belongs to gcc, whichever compiler is used.
execute_process(COMMAND gcc -print-file-name=include OUTPUT_VARIABLE gcc_include OUTPUT_STRIP_TRAILING_WHITESPACE
                ERROR_QUIET)
execute_process(COMMAND gcc -print-file-name= OUTPUT_VARIABLE gcc_lib OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
find_path(GNUSTEP_INCLUDE_DIR Foundation/Foundation.h PATH_SUFFIXES GNUstep)
find_path(OBJC_RUNTIME_INCLUDE_DIR objc/objc.h PATHS "${gcc_include}" NO_DEFAULT_PATH)
find_library(GNUSTEP_BASE_LIBRARY gnustep-base)
find_library(OBJC_RUNTIME_LIBRARY objc PATHS "${gcc_lib}" NO_DEFAULT_PATH)
mark_as_advanced(GNUSTEP_INCLUDE_DIR OBJC_RUNTIME_INCLUDE_DIR GNUSTEP_BASE_LIBRARY OBJC_RUNTIME_LIBRARY)
if(NOT (GNUSTEP_INCLUDE_DIR AND OBJC_RUNTIME_INCLUDE_DIR AND GNUSTEP_BASE_LIBRARY AND OBJC_RUNTIME_LIBRARY))
  mirel_without_objc("GNUstep is missing (apt-get install libgnustep-base-dev)")
endif()

set(CMAKE_OBJCXX_COMPILER ${MIREL_OBJCXX_COMPILER})
mirel_enable_objcxx()
target_compile_options(objective_c INTERFACE
  $<$<COMPILE_LANGUAGE:OBJCXX>:-fobjc-runtime=gcc "SHELL:-isystem ${GNUSTEP_INCLUDE_DIR}"
  "SHELL:-idirafter ${OBJC_RUNTIME_INCLUDE_DIR}" "SHELL:-I ${PROJECT_SOURCE_DIR}/tests/macos/double/include"
  "SHELL:-include double/Prefix.h" -fexceptions -fobjc-exceptions -fconstant-string-class=NSConstantString
  -D_NATIVE_OBJC_EXCEPTIONS -DGNUSTEP_BASE_LIBRARY=1>)
target_link_libraries(objective_c INTERFACE ${GNUSTEP_BASE_LIBRARY} ${OBJC_RUNTIME_LIBRARY} pthread)
