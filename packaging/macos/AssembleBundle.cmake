# Puts "Mirel Token.app" together, with the extension inside. For cmake -P, with
#   APP_EXECUTABLE, EXTENSION_EXECUTABLE  the programs, whatever they are called
#   APP_PLIST, EXTENSION_PLIST            the property lists
#   RESOURCES                             the folder of the <language>.lproj, which both get
#   APP_RESOURCES                         the same of what only the app gets
#   ICON                                  the app's icon
#   BUNDLE                                where the app goes; what is there is replaced
cmake_policy(VERSION 3.25)

foreach(name APP_EXECUTABLE EXTENSION_EXECUTABLE APP_PLIST EXTENSION_PLIST RESOURCES APP_RESOURCES ICON BUNDLE)
  if("${${name}}" STREQUAL "")
    message(FATAL_ERROR "${name} is not given")
  endif()
  if(NOT name STREQUAL "BUNDLE" AND NOT EXISTS "${${name}}")
    message(FATAL_ERROR "${name}: there is no ${${name}}")
  endif()
endforeach()
if(NOT BUNDLE MATCHES "/[^/]+\\.app$")
  message(FATAL_ERROR "BUNDLE: ${BUNDLE} is no path of an app")
endif()

# put(<file> <folder> <name>)
function(put file folder name)
  file(MAKE_DIRECTORY "${folder}")
  file(COPY_FILE "${file}" "${folder}/${name}")
endfunction()

# put_bundle(<bundle> <property list> <executable> <its name> <resources>...)
function(put_bundle bundle plist executable name)
  put("${plist}" "${bundle}/Contents" Info.plist)
  put("${executable}" "${bundle}/Contents/MacOS" "${name}")
  foreach(resources IN LISTS ARGN)
    file(GLOB folders "${resources}/*.lproj")
    file(COPY ${folders} DESTINATION "${bundle}/Contents/Resources")
  endforeach()
endfunction()

file(REMOVE_RECURSE "${BUNDLE}")
put_bundle("${BUNDLE}" "${APP_PLIST}" "${APP_EXECUTABLE}" mireltoken "${RESOURCES}" "${APP_RESOURCES}")
put("${ICON}" "${BUNDLE}/Contents/Resources" AppIcon.icns)
put_bundle("${BUNDLE}/Contents/PlugIns/MirelToken.appex" "${EXTENSION_PLIST}" "${EXTENSION_EXECUTABLE}" MirelToken
           "${RESOURCES}")

# For everybody, whatever the umask of who builds it.
set(everybody_reads OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
set(everybody_runs ${everybody_reads} OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)
file(CHMOD_RECURSE "${BUNDLE}" FILE_PERMISSIONS ${everybody_reads} DIRECTORY_PERMISSIONS ${everybody_runs})
file(CHMOD "${BUNDLE}/Contents/MacOS/mireltoken" "${BUNDLE}/Contents/PlugIns/MirelToken.appex/Contents/MacOS/MirelToken"
     PERMISSIONS ${everybody_runs})
