# Sound: the audio output layer (platform/audio_output.h: the platform-free buffer and position
# rules plus one backend, WinMM on Windows and SDL2 elsewhere), MP3 decoding (ACM on Windows,
# libmpg123 elsewhere where pkg-config finds it), and the tracks of platform/audio_track.h on top of the WAV codec.
find_package(Threads REQUIRED)
find_package(PkgConfig QUIET)
add_library(korvel_audio_output STATIC
  ${CMAKE_CURRENT_LIST_DIR}/audio_output_common.cpp
  ${CMAKE_CURRENT_LIST_DIR}/audio_mp3_common.cpp
  ${CMAKE_CURRENT_LIST_DIR}/audio_mp3_frames.cpp)
target_include_directories(korvel_audio_output PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(korvel_audio_output PUBLIC Threads::Threads)
if(WIN32)
  target_sources(korvel_audio_output PRIVATE ${CMAKE_CURRENT_LIST_DIR}/windows/windows_mixer.cpp)
  target_compile_definitions(korvel_audio_output PRIVATE NOMINMAX WIN32_LEAN_AND_MEAN)
  target_link_libraries(korvel_audio_output PUBLIC winmm)
else()
  include(${CMAKE_CURRENT_LIST_DIR}/sdl/sdl.cmake)
  target_sources(korvel_audio_output PRIVATE ${CMAKE_CURRENT_LIST_DIR}/sdl/sdl_mixer.cpp)
  target_link_libraries(korvel_audio_output PRIVATE korvel_sdl ${CMAKE_DL_LIBS})
endif()
if(PkgConfig_FOUND AND NOT WIN32)
  pkg_check_modules(KORVEL_MPG123 QUIET IMPORTED_TARGET libmpg123)
endif()
if(WIN32)
  # The system's MP3 codec through the Audio Compression Manager.
  target_sources(korvel_audio_output PRIVATE ${CMAKE_CURRENT_LIST_DIR}/windows/windows_mp3.cpp)
  target_link_libraries(korvel_audio_output PUBLIC msacm32)
  set(KORVEL_HAVE_MP3 ON CACHE INTERNAL "")
elseif(KORVEL_MPG123_FOUND)
  target_sources(korvel_audio_output PRIVATE ${CMAKE_CURRENT_LIST_DIR}/audio_mp3_mpg123.cpp)
  target_link_libraries(korvel_audio_output PRIVATE PkgConfig::KORVEL_MPG123)
  set(KORVEL_HAVE_MP3 ON CACHE INTERNAL "")
else()
  target_sources(korvel_audio_output PRIVATE ${CMAKE_CURRENT_LIST_DIR}/audio_mp3_none.cpp)
  set(KORVEL_HAVE_MP3 OFF CACHE INTERNAL "")
endif()
korvel_warnings(korvel_audio_output)

add_library(korvel_audio STATIC ${CMAKE_CURRENT_LIST_DIR}/audio_track.cpp)
target_link_libraries(korvel_audio PUBLIC korvel_audio_output korvel_wav)
korvel_warnings(korvel_audio)

# The Audio module's bindings (host/audio_module.cpp), kept as a library of their own so that
# the host and the tests link the same code.

if(KORVEL_FUZZ)
  foreach(target korvel_audio_output korvel_audio)
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link,address,undefined)
  endforeach()
endif()
