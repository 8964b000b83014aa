# Builds for macOS on another system, with clang and ld64.lld. For a maintainer who owns an SDK:
#   cmake -S . -B build/cross -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/macos-toolchain.cmake
#         -DMIREL_MACOS_SDK=/path/to/MacOSX.sdk
# MIREL_MACOS_SDK         the SDK's folder; the environment variable of the same name will do
# MIREL_LLVM_SUFFIX       which LLVM, "-14" for example; the newest with all that is needed unless given
# CMAKE_OSX_ARCHITECTURES arm64 and x86_64 unless given
# The oldest macOS to run on is the project's own choice.

set(CMAKE_SYSTEM_NAME Darwin)
# A project that only tries something out gets told the same.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MIREL_MACOS_SDK MIREL_LLVM_SUFFIX CMAKE_OSX_ARCHITECTURES
     CMAKE_OSX_DEPLOYMENT_TARGET)

if(NOT MIREL_MACOS_SDK)
  set(MIREL_MACOS_SDK "$ENV{MIREL_MACOS_SDK}")
endif()
set(MIREL_MACOS_SDK "${MIREL_MACOS_SDK}" CACHE PATH "The folder of the macOS SDK")
if(NOT MIREL_MACOS_SDK)
  message(FATAL_ERROR "Building for macOS needs a macOS SDK, which only you can provide. Say where it is with\n"
                      "  -DMIREL_MACOS_SDK=/path/to/MacOSX.sdk\n")
endif()
foreach(file SDKSettings.json usr/lib/libSystem.tbd usr/lib/libc++.tbd)
  if(NOT EXISTS "${MIREL_MACOS_SDK}/${file}")
    message(FATAL_ERROR "${MIREL_MACOS_SDK} is no macOS SDK: it has no ${file}. Say where one is with\n"
                        "  -DMIREL_MACOS_SDK=/path/to/MacOSX.sdk\n")
  endif()
endforeach()
set(CMAKE_OSX_SYSROOT "${MIREL_MACOS_SDK}")

set(BUILD_TESTING OFF CACHE BOOL "Build the tests, which could not run here")

if(NOT CMAKE_OSX_ARCHITECTURES)
  set(CMAKE_OSX_ARCHITECTURES arm64 x86_64 CACHE STRING "Processors to build for")
endif()
# One LLVM for everything: the one that is given, else the newest that is complete.
include("${CMAKE_CURRENT_LIST_DIR}/LlvmVersions.cmake")
set(mirel_programs clang clang++ ld64.lld llvm-lipo llvm-libtool-darwin llvm-install-name-tool llvm-ar llvm-ranlib)

# mirel_missing_program(<variable> <suffix>): the first that is missing of the LLVM with this suffix; empty when it is
# complete.
function(mirel_missing_program variable suffix)
  set(missing "")
  foreach(program IN LISTS mirel_programs)
    find_program(path NAMES "${program}${suffix}" NO_CACHE)
    if(NOT path)
      set(missing "${program}")
      break()
    endif()
    unset(path)
  endforeach()
  set(${variable} "${missing}" PARENT_SCOPE)
endfunction()

if(MIREL_LLVM_SUFFIX)
  set(mirel_suffixes "${MIREL_LLVM_SUFFIX}")
else()
  mirel_llvm_suffixes(mirel_suffixes)
  list(APPEND mirel_suffixes "none")  # the programs without a number
endif()
set(mirel_first_trouble "")
foreach(candidate IN LISTS mirel_suffixes)
  string(REGEX REPLACE "^none$" "" mirel_suffix "${candidate}")
  mirel_missing_program(mirel_missing "${mirel_suffix}")
  if(NOT mirel_missing)
    break()
  endif()
  if(NOT mirel_first_trouble)
    string(REGEX REPLACE "^ld64\\.|-.*|\\+\\+" "" mirel_package "${mirel_missing}")
    string(CONCAT mirel_first_trouble "${mirel_missing}${mirel_suffix} is missing. Install it with\n"
                                      "  apt-get install ${mirel_package}${mirel_suffix}\n")
  endif()
endforeach()
if(mirel_missing)
  message(FATAL_ERROR "${mirel_first_trouble}")
endif()
# mirel_find_program(<variable> <program>): kept, so that a build folder stays with its LLVM.
macro(mirel_find_program variable program)
  find_program(${variable} NAMES "${program}${mirel_suffix}")
  mark_as_advanced(${variable})
endmacro()
mirel_find_program(MIREL_CLANG clang)
mirel_find_program(MIREL_CLANGXX clang++)
mirel_find_program(MIREL_LD64 ld64.lld)
mirel_find_program(MIREL_LIPO llvm-lipo)
mirel_find_program(MIREL_LIBTOOL llvm-libtool-darwin)
mirel_find_program(CMAKE_INSTALL_NAME_TOOL llvm-install-name-tool)
mirel_find_program(CMAKE_AR llvm-ar)
mirel_find_program(CMAKE_RANLIB llvm-ranlib)

# For two processors clang calls lipo, by that name and from the folder that -B gives.
set(mirel_tools "${CMAKE_BINARY_DIR}/macos-tools")
file(MAKE_DIRECTORY "${mirel_tools}")
file(CREATE_LINK "${MIREL_LIPO}" "${mirel_tools}/lipo" SYMBOLIC)

# What is needed whatever flags the user gives: those would take the place of initial ones.
add_compile_options("-B${mirel_tools}")
# Older clangs ask which linker of Apple's this one stands for before they tell it the oldest macOS.
add_link_options("-B${mirel_tools}" -mlinker-version=711 "--ld-path=${MIREL_LD64}")
foreach(language C OBJC)
  set(CMAKE_${language}_COMPILER "${MIREL_CLANG}")
endforeach()
foreach(language CXX OBJCXX)
  set(CMAKE_${language}_COMPILER "${MIREL_CLANGXX}" -stdlib=libc++)
endforeach()
foreach(language C CXX OBJC OBJCXX)
  set(CMAKE_${language}_COMPILER_TARGET arm64-apple-macos)
  # ar knows nothing of objects for two processors.
  set(CMAKE_${language}_ARCHIVE_CREATE "\"${MIREL_LIBTOOL}\" -static -o <TARGET> <OBJECTS>")
  set(CMAKE_${language}_ARCHIVE_APPEND "")
  set(CMAKE_${language}_ARCHIVE_FINISH "")
endforeach()

# Programs come from this system, everything else from the SDK.
set(CMAKE_FIND_ROOT_PATH "${MIREL_MACOS_SDK}" CACHE STRING "Where libraries and headers are looked for")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
