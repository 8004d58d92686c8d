# Image files: the PNG, BMP, TGA and XCF readers and the PNG writer (platform/image_codecs.h).
# Portable C++ only, the same sources on every platform.
add_library(korvel_image_codecs STATIC
  ${CMAKE_CURRENT_LIST_DIR}/image_codecs.cpp
  ${CMAKE_CURRENT_LIST_DIR}/inflate.cpp
  ${CMAKE_CURRENT_LIST_DIR}/deflate.cpp
  ${CMAKE_CURRENT_LIST_DIR}/png_decoder.cpp
  ${CMAKE_CURRENT_LIST_DIR}/png_writer.cpp
  ${CMAKE_CURRENT_LIST_DIR}/bmp_decoder.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tga_decoder.cpp
  ${CMAKE_CURRENT_LIST_DIR}/xcf_decoder.cpp
)
target_include_directories(korvel_image_codecs PUBLIC ${PROJECT_SOURCE_DIR})
# korvel_core brings readFileBytes and writeFileAtomically.
target_link_libraries(korvel_image_codecs PUBLIC korvel_core)
korvel_warnings(korvel_image_codecs)
if(KORVEL_FUZZ)
  target_compile_options(korvel_image_codecs PRIVATE -fsanitize=fuzzer-no-link,address,undefined)
endif()
