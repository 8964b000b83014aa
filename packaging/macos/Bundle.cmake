# The property lists of the app and of the extension, and the app itself.
foreach(list AppInfo ExtensionInfo)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${list}.plist.in ${PROJECT_BINARY_DIR}/bundle/${list}.plist @ONLY)
endforeach()

# mirel_add_bundle(<target> APP <target> EXTENSION <target>)
# Makes "Mirel Token.app" of two programs in the build folder. Where there is codesign it is signed, ad hoc: without
# the entitlements in its signature the system does not start the extension.
function(mirel_add_bundle name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "APP;EXTENSION" "")
  set(bundle "${PROJECT_BINARY_DIR}/Mirel Token.app")
  set(packaging ${CMAKE_CURRENT_FUNCTION_LIST_DIR})
  set(resources ${packaging}/Resources)
  set(app_resources ${packaging}/AppResources)
  set(app_plist ${PROJECT_BINARY_DIR}/bundle/AppInfo.plist)
  set(extension_plist ${PROJECT_BINARY_DIR}/bundle/ExtensionInfo.plist)
  file(GLOB_RECURSE string_files CONFIGURE_DEPENDS ${resources}/*.strings ${app_resources}/*.strings)
  find_program(MIREL_CODESIGN codesign)
  mark_as_advanced(MIREL_CODESIGN)
  set(sign "")
  if(MIREL_CODESIGN)
    set(sign COMMAND ${packaging}/sign-and-package --sign-only "${bundle}")
  endif()
  set(stamp ${PROJECT_BINARY_DIR}/bundle/assembled)
  add_custom_command(
    OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND}
            -DAPP_EXECUTABLE=$<TARGET_FILE:${ARG_APP}> -DEXTENSION_EXECUTABLE=$<TARGET_FILE:${ARG_EXTENSION}>
            -DAPP_PLIST=${app_plist} -DEXTENSION_PLIST=${extension_plist}
            -DRESOURCES=${resources} -DAPP_RESOURCES=${app_resources} -DICON=${packaging}/AppIcon.icns "-DBUNDLE=${bundle}"
            -P ${packaging}/AssembleBundle.cmake
    ${sign}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${ARG_APP} ${ARG_EXTENSION} ${app_plist} ${extension_plist} ${string_files}
            ${packaging}/AppIcon.icns ${packaging}/AssembleBundle.cmake
            ${packaging}/App.entitlements ${packaging}/Extension.entitlements
            ${packaging}/sign-and-package
    COMMENT "Putting Mirel Token.app together"
    VERBATIM)
  add_custom_target(${name} ALL DEPENDS ${stamp})
endfunction()
