# Nobody but the bridge touches the PKCS #11 module's function list:
#   cmake -DROOT=<the sources> -P ModuleContact.cmake
# Fails with the lines that do.

cmake_minimum_required(VERSION 3.25)

set(contact "callAlone|moduleLock|[cC]kFunc|CK_FUNCTION_LIST|hFunctionList|CK_C_GetFunctionList|\"C_GetFunctionList\"|(\\.|->)C_[A-Z]")

# contacts_in(<variable> <folder>...): the lines of the folders' sources that match, comments included.
function(contacts_in result)
  set(found "")
  foreach(folder IN LISTS ARGN)
    file(GLOB_RECURSE sources ${ROOT}/${folder}/*.cpp ${ROOT}/${folder}/*.h ${ROOT}/${folder}/*.mm)
    if(NOT sources)
      message(FATAL_ERROR "The folder ${folder} has no sources.")
    endif()
    list(FILTER sources EXCLUDE REGEX "/fuzz/EditedModule\\.cpp$")  # it is a module itself
    foreach(source IN LISTS sources)
      file(STRINGS ${source} lines REGEX "${contact}" ENCODING UTF-8)
      foreach(line IN LISTS lines)
        string(APPEND found "${source}: ${line}\n")
      endforeach()
    endforeach()
  endforeach()
  set(${result} "${found}" PARENT_SCOPE)
endfunction()

contacts_in(own bridge/src bridge/include)
if(NOT own MATCHES "CryptokiCall.h: .*callAlone" OR NOT own MATCHES "P11Bridge.h: .*ckFunc")
  message(FATAL_ERROR "The bridge itself does not match: the names looked for are out of date.")
endif()
contacts_in(others framework provider token platform host cli bench fuzz)
# What records and replays a module is itself one: it stands where the bridge finds its module.
string(REGEX REPLACE "[^\n]*/host/recording/src/[^\n]*\n" "" others "${others}")
if(others)
  message(FATAL_ERROR "Only the bridge touches the module; these go past it:\n${others}")
endif()
