# What both mingw-w64 cross builds share; the per-target files set CMAKE_SYSTEM_PROCESSOR and
# KORVEL_MINGW_PREFIX first. The "-posix" compilers are the ones with std::thread and
# std::mutex; -static leaves only system DLLs to import.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_C_COMPILER ${KORVEL_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KORVEL_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${KORVEL_MINGW_PREFIX}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${KORVEL_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
