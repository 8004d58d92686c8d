# Cross build for 32-bit Windows with mingw-w64 on Debian.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(KORVEL_MINGW_PREFIX i686-w64-mingw32)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64-common.cmake)
# GCC 12 for 32-bit targets reads the payload of a Variable holding a small integer as a constant
# address and reports the reference count of the "object" there (-Warray-bounds), in a branch
# the type test never takes, in every file that destroys a Variable. The 64-bit and Linux builds
# keep the warning.
set(CMAKE_CXX_FLAGS_INIT "-Wno-array-bounds")
# No emulator: 32-bit Wine cannot be installed next to wine64 here, and wine64 quietly "runs"
# a 32-bit program as a silent success. docs/windows.md says how to run these tests elsewhere.
