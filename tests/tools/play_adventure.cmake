# Plays the sample adventure to its end with scripted input and checks the closing line.
# EMULATOR runs the program on another system (wine for a Windows build); empty otherwise.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/adventure-input.txt "look\ntake coat\ngo north\ntake key\nsouth\ngo east\ninventory\ndown\n")
execute_process(COMMAND ${EMULATOR} ${KORVEL} ${SCRIPT} INPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/adventure-input.txt
  RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE errors)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "adventure exited with ${status}: ${errors}")
endif()
if(NOT output MATCHES "You carry: coat, key" OR NOT output MATCHES "Well done!")
  message(FATAL_ERROR "unexpected adventure output:\n${output}")
endif()
