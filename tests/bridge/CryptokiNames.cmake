# Lists what the header HEADER declares, as C++ statements that fill `rows`:
#   cmake -DHEADER=... -DOTHER_HEADER=... -DLACKING=name,name -DOUTPUT_FOLDER=... -P CryptokiNames.cmake
# CommonRows.inc: sizes, offsets, values and signatures for all names but the lacking ones.
# LackingRows.inc: the same for the lacking ones; only our header knows them. Fails when OTHER_HEADER mentions
# one of them after all.

cmake_minimum_required(VERSION 3.25)

file(READ "${HEADER}" text)
# Semicolons and brackets mean something to CMake's lists.
string(REPLACE ";" "|" text "${text}")
string(REPLACE "[" "<" text "${text}")
string(REPLACE "]" ">" text "${text}")
string(REGEX REPLACE "//[^\n]*" "" text "${text}")
string(REGEX REPLACE "[ \n]+" " " text "${text}")

string(REPLACE "," ";" lacking "${LACKING}")
set(common "")
set(rest "")

macro(add_row owner label value)
  set(row "rows.push_back({\"${label}\", text(${value})})|\n")
  if("${owner}" IN_LIST lacking)
    string(APPEND rest "${row}")
  else()
    string(APPEND common "${row}")
  endif()
endmacro()

# Constants.
string(REGEX MATCHALL "inline constexpr [A-Za-z_]+ [A-Za-z0-9_]+ =" constants "${text}")
string(REGEX MATCHALL "constexpr" all_constants "${text}")
list(LENGTH constants num_constants)
list(LENGTH all_constants num_all_constants)
if(NOT num_constants EQUAL num_all_constants)
  message(FATAL_ERROR "${num_all_constants} constants, of which ${num_constants} can be read")
endif()
foreach(constant IN LISTS constants)
  string(REGEX REPLACE "inline constexpr [A-Za-z_]+ ([A-Za-z0-9_]+) =" "\\1" name "${constant}")
  add_row(${name} "${name}" "static_cast<unsigned long>(${name})")
endforeach()

# Names of types.
string(REGEX MATCHALL "using [A-Za-z0-9_]+ =" aliases "${text}")
foreach(alias IN LISTS aliases)
  string(REGEX REPLACE "using ([A-Za-z0-9_]+) =" "\\1" name "${alias}")
  add_row(${name} "sizeof(${name})" "sizeof(${name})")
endforeach()

# Structures and their members; those of the function list are functions.
string(REGEX MATCHALL "struct [A-Za-z0-9_]+ {[^}]*}" structures "${text}")
foreach(structure IN LISTS structures)
  string(REGEX REPLACE "struct ([A-Za-z0-9_]+) {.*" "\\1" name "${structure}")
  add_row(${name} "sizeof(${name})" "sizeof(${name})")
  add_row(${name} "alignof(${name})" "alignof(${name})")
  string(REGEX REPLACE "struct [A-Za-z0-9_]+ {([^}]*)}" "\\1" body "${structure}")
  string(REPLACE "|" ";" members "${body}")
  foreach(member IN LISTS members)
    string(STRIP "${member}" member)
    if(member STREQUAL "")
      continue()
    endif()
    set(is_function false)
    if(member MATCHES "\\(\\*(C_[A-Za-z]+)\\)")
      set(field ${CMAKE_MATCH_1})
      set(is_function true)
    elseif(member MATCHES "^CK_C_[A-Za-z]+ (C_[A-Za-z]+)$")
      set(field ${CMAKE_MATCH_1})
      set(is_function true)
    elseif(member MATCHES "([A-Za-z0-9_]+)(<[0-9]+>)?$")
      set(field ${CMAKE_MATCH_1})
    else()
      message(FATAL_ERROR "cannot read the member \"${member}\" of ${name}")
    endif()
    if(is_function)
      add_row(${name} "signature of ${field}" "signature(&${name}::${field})")
    endif()
    add_row(${name} "offsetof(${name}, ${field})" "offsetof(${name}, ${field})")
    add_row(${name} "sizeof(${name}::${field})" "sizeof(${name}::${field})")
  endforeach()
endforeach()

file(READ "${OTHER_HEADER}" other)
foreach(name IN LISTS lacking)
  if("${other}" MATCHES "[^A-Za-z0-9_]${name}[^A-Za-z0-9_]")
    message(FATAL_ERROR "${OTHER_HEADER} has ${name} after all: it is to be compared")
  endif()
endforeach()

string(REPLACE "|" ";" common "${common}")
string(REPLACE "|" ";" rest "${rest}")
file(WRITE "${OUTPUT_FOLDER}/CommonRows.inc" "${common}")
file(WRITE "${OUTPUT_FOLDER}/LackingRows.inc" "${rest}")
