# libFuzzer targets for the image readers and the zlib inflater, included by fuzz/CMakeLists.txt.
foreach(target image_fuzz png_fuzz bmp_fuzz tga_fuzz xcf_fuzz zlib_fuzz)
  add_executable(${target} ${CMAKE_CURRENT_LIST_DIR}/${target}.cpp)
  target_compile_options(${target} PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_options(${target} PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_libraries(${target} PRIVATE korvel_image_codecs)
  korvel_warnings(${target})
endforeach()
