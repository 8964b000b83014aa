# Makes the gettext catalogue OUTPUT of the Localizable.strings STRINGS, which are UTF-8. msgfmt knows that by a byte
# order mark, and newer ones besides want the header entry of a catalogue, which says the same.
cmake_path(GET OUTPUT PARENT_PATH folder)
file(MAKE_DIRECTORY ${folder})
file(READ ${STRINGS} text)
string(ASCII 239 187 191 mark)
set(header "\"\" = \"Content-Type: text/plain; charset=UTF-8\\n\";\n")
file(WRITE ${OUTPUT}.strings "${mark}${header}${text}")
execute_process(
  COMMAND ${MSGFMT} --stringtable-input --output-file=${OUTPUT} ${OUTPUT}.strings
  RESULT_VARIABLE result ERROR_VARIABLE error)
file(REMOVE ${OUTPUT}.strings)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "msgfmt does not take ${STRINGS}: ${error}")
endif()
