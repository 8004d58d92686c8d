# A usage error (an unknown option) must exit with status 2.
# EMULATOR runs the program on another system (wine for a Windows build); empty otherwise.
execute_process(COMMAND ${EMULATOR} ${KORVEL} --no-such-option RESULT_VARIABLE status OUTPUT_QUIET ERROR_QUIET)
if(NOT status EQUAL 2)
  message(FATAL_ERROR "expected exit status 2, got ${status}")
endif()
execute_process(COMMAND ${EMULATOR} ${KORVEL} -e RESULT_VARIABLE status OUTPUT_QUIET ERROR_QUIET)
if(NOT status EQUAL 2)
  message(FATAL_ERROR "expected exit status 2 for -e without code, got ${status}")
endif()
