# cmake -D SOURCE=<folder> -D OUTPUT=<header> -P Commit.cmake
# Writes the header that says from which commit a program is built: "" in an archive without git, and where git is not
# installed. The header is touched only when it says something else than before.
cmake_minimum_required(VERSION 3.25)
set(commit "")
if(EXISTS ${SOURCE}/.git)  # not that of a folder around an archive
  execute_process(COMMAND git -C ${SOURCE} describe --always --dirty --abbrev=12 --exclude=*
                  RESULT_VARIABLE failed OUTPUT_VARIABLE told ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT failed)
    set(commit ${told})
  endif()
endif()
file(CONFIGURE OUTPUT ${OUTPUT} @ONLY CONTENT "#pragma once

namespace mirel::cli {

inline constexpr const char* kCommit = \"@commit@\";

}  // namespace mirel::cli
")
