# Installs the build into a temporary prefix and runs the installed Quillfen on the sample
# game: the layout (bin/Quillfen beside Resources/scripts/) must work on its own.
#   cmake -DBUILD=dir -DPREFIX=dir [-DEMULATOR=...] -P check_install.cmake
file(REMOVE_RECURSE "${PREFIX}")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BUILD}" --prefix "${PREFIX}" --component Quillfen
                RESULT_VARIABLE status OUTPUT_QUIET ERROR_VARIABLE install_err)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "cmake --install failed: ${install_err}")
endif()
file(GLOB executable "${PREFIX}/bin/Quillfen*")
if(NOT executable)
  message(FATAL_ERROR "no Quillfen in ${PREFIX}/bin")
endif()
if(NOT EXISTS "${PREFIX}/Resources/scripts/visual-novel.ks")
  message(FATAL_ERROR "the sample game's main script was not installed")
endif()
execute_process(COMMAND ${EMULATOR} ${executable} WORKING_DIRECTORY "${PREFIX}"
                OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE status TIMEOUT 60)
string(REPLACE "\r\n" "\n" out "${out}")
if(NOT status EQUAL 0 OR NOT err STREQUAL "" OR NOT out MATCHES "^== Quillfen Testing v1.1 \\(Prerelease\\)\n")
  message(FATAL_ERROR "the installed Quillfen failed (status ${status}):\n${out}\n${err}")
endif()
file(REMOVE_RECURSE "${PREFIX}")
