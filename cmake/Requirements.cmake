# Finds what the build needs; a missing package stops the configuration with its name and the command
# that installs it.

function(mirel_missing what debian homebrew)
  if(APPLE)
    set(command "brew install ${homebrew}")
  else()
    set(command "apt-get install ${debian}")
  endif()
  message(FATAL_ERROR "${what} is missing. Install it with\n  ${command}\n")
endfunction()

# mirel_require_package(<what to call it> <Debian package> <Homebrew formula> <find_package arguments>...)
macro(mirel_require_package what debian homebrew)
  find_package(${ARGN} QUIET)
  if(NOT ${ARGV3}_FOUND)
    mirel_missing("${what}" "${debian}" "${homebrew}")
  endif()
endmacro()

# mirel_require_header(<variable> <header> <what> <Debian package> <Homebrew formula> [<path suffixes>...])
macro(mirel_require_header variable header what debian homebrew)
  find_path(${variable} ${header} PATH_SUFFIXES ${ARGN})
  if(NOT ${variable})
    mirel_missing("${what}" "${debian}" "${homebrew}")
  endif()
  mark_as_advanced(${variable})
endmacro()

mirel_require_package("The OpenSSL library" libssl-dev openssl@3 OpenSSL 3.0)
mirel_require_package("The command line parser CLI11" libcli11-dev cli11 CLI11)
mirel_require_package("The JSON library nlohmann-json" nlohmann-json3-dev nlohmann-json nlohmann_json)
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  mirel_require_header(SYSTEMD_INCLUDE_DIR systemd/sd-bus.h "The sd-bus library" libsystemd-dev systemd)
endif()

if(BUILD_TESTING)
  mirel_require_package("The test framework GoogleTest" "libgtest-dev libgmock-dev" googletest GTest)
  mirel_require_header(P11KIT_INCLUDE_DIR p11-kit/pkcs11.h "The reference PKCS #11 header" libp11-kit-dev p11-kit
                       p11-kit-1)
endif()
