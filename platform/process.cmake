# The shell-pipe layer (platform/host_platform.h) lives in korvel_platform, with a backend for
# each platform; korvel_process remains as the name targets link against.
if(NOT TARGET korvel_process)
  add_library(korvel_process INTERFACE)
  target_link_libraries(korvel_process INTERFACE korvel_platform)
endif()
