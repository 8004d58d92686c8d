# Cross build for 32-bit Windows with mingw-w64 on Debian. The "-posix" compilers are the
# ones with std::thread and std::mutex; -static leaves only system DLLs to import.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(KORVEL_MINGW_PREFIX i686-w64-mingw32)
set(CMAKE_C_COMPILER ${KORVEL_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KORVEL_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${KORVEL_MINGW_PREFIX}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${KORVEL_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
# GCC 12 for 32-bit targets reads the payload of a Variable holding a small integer as a constant
# address and reports the reference count of the "object" there (-Warray-bounds), in a branch
# the type test never takes, in every file that destroys a Variable. The 64-bit and Linux builds
# keep the warning.
set(CMAKE_CXX_FLAGS_INIT "-Wno-array-bounds")
# No emulator: 32-bit Wine cannot be installed next to wine64 here, and wine64 quietly "runs"
# a 32-bit program as a silent success. docs/windows.md says how to run these tests elsewhere.
