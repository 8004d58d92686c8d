# Runs a Quillfen executable from a fresh install layout and checks what it prints.
#   cmake -DEXE=... -DCASE=dir -DWORK=dir [-DEMULATOR=...] [-DKORVEL=...] -P run_quillfen.cmake
# The case directory holds the files to install below Resources/ (scripts/*.ks, package/*.ks),
# and expected.stdout / expected.stderr / expected.exit; "@ROOT@" in them stands for the
# install root. With expected.stderr-is-korvel, standard error must equal what the korvel
# command prints for an unprotected run of the installed main script.
foreach(required EXE CASE WORK)
  if(NOT DEFINED ${required})
    message(FATAL_ERROR "run_quillfen.cmake: -D${required}=... is required")
  endif()
endforeach()

file(REMOVE_RECURSE "${WORK}")
file(MAKE_DIRECTORY "${WORK}/bin" "${WORK}/Resources/scripts")
get_filename_component(exe_name "${EXE}" NAME)
file(COPY "${EXE}" DESTINATION "${WORK}/bin")
if(EXISTS "${CASE}/Resources")
  file(COPY "${CASE}/Resources/" DESTINATION "${WORK}/Resources")
endif()

set(command ${EMULATOR} "${WORK}/bin/${exe_name}")
execute_process(COMMAND ${command} WORKING_DIRECTORY "${WORK}"
                OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE status TIMEOUT 60)
# Windows runtimes end lines with CR LF.
string(REPLACE "\r\n" "\n" out "${out}")
string(REPLACE "\r\n" "\n" err "${err}")

# Under wine the program sees the install root through drive Z:, which wine maps to "/".
set(root_as_seen "${WORK}")
if(EMULATOR)
  set(root_as_seen "Z:${WORK}")
endif()

set(failures "")
function(expect_text what actual expected_file)
  file(READ "${expected_file}" expected)
  string(REPLACE "@ROOT@" "${root_as_seen}" expected "${expected}")
  if(NOT actual STREQUAL expected)
    set(failures "${failures}\n--- ${what} differs.\nexpected:\n[${expected}]\nactual:\n[${actual}]" PARENT_SCOPE)
  endif()
endfunction()

if(EXISTS "${CASE}/expected.stdout")
  expect_text("standard output" "${out}" "${CASE}/expected.stdout")
endif()
if(EXISTS "${CASE}/expected.stderr")
  expect_text("standard error" "${err}" "${CASE}/expected.stderr")
endif()
if(EXISTS "${CASE}/expected.stderr-regex")
  file(READ "${CASE}/expected.stderr-regex" pattern)
  string(STRIP "${pattern}" pattern)
  if(NOT err MATCHES "${pattern}")
    set(failures "${failures}\n--- standard error does not match ${pattern}:\n[${err}]")
  endif()
endif()
if(EXISTS "${CASE}/expected.stderr-is-korvel")
  if(NOT DEFINED KORVEL)
    message(FATAL_ERROR "run_quillfen.cmake: this case needs -DKORVEL=...")
  endif()
  # The report names the script by the path the start-up program built, so run korvel on it.
  set(main "${root_as_seen}/bin/../Resources/scripts/visual-novel.ks")
  execute_process(COMMAND ${EMULATOR} "${KORVEL}" "${main}" WORKING_DIRECTORY "${WORK}"
                  OUTPUT_QUIET ERROR_VARIABLE korvel_err RESULT_VARIABLE korvel_status TIMEOUT 60)
  string(REPLACE "\r\n" "\n" korvel_err "${korvel_err}")
  if(korvel_err STREQUAL "" OR NOT err STREQUAL korvel_err)
    set(failures "${failures}\n--- standard error is not the korvel command's report.\nkorvel:\n[${korvel_err}]\nQuillfen:\n[${err}]")
  endif()
endif()
set(expected_status 0)
if(EXISTS "${CASE}/expected.exit")
  file(READ "${CASE}/expected.exit" expected_status)
  string(STRIP "${expected_status}" expected_status)
endif()
if(NOT status STREQUAL expected_status)
  set(failures "${failures}\n--- exit status ${status}, expected ${expected_status}\nstderr:\n[${err}]")
endif()

if(failures)
  message(FATAL_ERROR "${exe_name} in ${CASE}:${failures}")
endif()
file(REMOVE_RECURSE "${WORK}")
