# libFuzzer targets for KorvelLua, included by fuzz/CMakeLists.txt when present.
foreach(target lua_parser_fuzz lua_klbc_fuzz lua_pattern_fuzz)
  add_executable(${target} ${CMAKE_CURRENT_LIST_DIR}/${target}.cpp)
  target_compile_options(${target} PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_options(${target} PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_libraries(${target} PRIVATE korvel_lua)
  korvel_warnings(${target})
endforeach()
