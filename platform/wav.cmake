# The WAV codec (platform/wav.h). Platform-free; encodeFile writes through core's atomic file writer.
add_library(korvel_wav STATIC ${CMAKE_CURRENT_LIST_DIR}/wav.cpp ${CMAKE_CURRENT_LIST_DIR}/wav_encode.cpp)
target_include_directories(korvel_wav PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(korvel_wav PRIVATE korvel_core)
korvel_warnings(korvel_wav)
if(KORVEL_FUZZ)
  target_compile_options(korvel_wav PRIVATE -fsanitize=fuzzer-no-link,address,undefined)
endif()
