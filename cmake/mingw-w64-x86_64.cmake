# Cross build for 64-bit Windows with mingw-w64 on Debian.
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(KORVEL_MINGW_PREFIX x86_64-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
# ctest runs each program through wine (tests/run-windows-tests.sh sets up the session).
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/lib/wine/wine64)
