# Builds for macOS on another system, with clang and ld64.lld. For a maintainer who owns an SDK:
#   cmake -S . -B build/cross -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/macos-toolchain.cmake
#         -DMIREL_MACOS_SDK=/path/to/MacOSX.sdk
# MIREL_MACOS_SDK         the SDK's folder; the environment variable of the same name will do
# MIREL_LLVM_SUFFIX       which LLVM, "-14" for example, where several are installed
# CMAKE_OSX_ARCHITECTURES arm64 and x86_64 unless given

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
if(NOT CMAKE_OSX_DEPLOYMENT_TARGET)
  set(CMAKE_OSX_DEPLOYMENT_TARGET 12.0 CACHE STRING "Oldest macOS to run on")
endif()

# mirel_find_tool(<variable> <program> <Debian package>): the one with the suffix, else the plain one, else any.
function(mirel_find_tool variable program package)
  set(names "${program}${MIREL_LLVM_SUFFIX}")
  if(NOT MIREL_LLVM_SUFFIX)
    foreach(version RANGE 30 14 -1)
      list(APPEND names "${program}-${version}")
    endforeach()
  endif()
  find_program(${variable} NAMES ${names})
  mark_as_advanced(${variable})
  if(NOT ${variable})
    message(FATAL_ERROR "${program} is missing. Install it with\n  apt-get install ${package}\n")
  endif()
endfunction()
mirel_find_tool(MIREL_CLANG clang clang)
mirel_find_tool(MIREL_CLANGXX clang++ clang)
mirel_find_tool(MIREL_LD64 ld64.lld lld)
mirel_find_tool(MIREL_LIPO llvm-lipo llvm)
mirel_find_tool(MIREL_LIBTOOL llvm-libtool-darwin llvm)
mirel_find_tool(CMAKE_INSTALL_NAME_TOOL llvm-install-name-tool llvm)
mirel_find_tool(CMAKE_AR llvm-ar llvm)
mirel_find_tool(CMAKE_RANLIB llvm-ranlib llvm)

foreach(language C CXX OBJC OBJCXX)
  set(CMAKE_${language}_COMPILER_TARGET arm64-apple-macos)
endforeach()
foreach(language C OBJC)
  set(CMAKE_${language}_COMPILER "${MIREL_CLANG}")
endforeach()
foreach(language CXX OBJCXX)
  set(CMAKE_${language}_COMPILER "${MIREL_CLANGXX}")
  set(mirel_${language}_library " -stdlib=libc++")
endforeach()

# For two processors clang calls lipo, by that name and from the folder that -B gives.
set(mirel_tools "${CMAKE_BINARY_DIR}/macos-tools")
file(MAKE_DIRECTORY "${mirel_tools}")
file(CREATE_LINK "${MIREL_LIPO}" "${mirel_tools}/lipo" SYMBOLIC)
# Older clangs ask which linker of Apple's this one stands for before they tell it the oldest macOS.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-mlinker-version=711 -B\"${mirel_tools}\" --ld-path=\"${MIREL_LD64}\"")
endforeach()
foreach(language C CXX OBJC OBJCXX)
  set(CMAKE_${language}_FLAGS_INIT "-B\"${mirel_tools}\"${mirel_${language}_library}")
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
