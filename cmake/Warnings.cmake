# Every target of the project builds with the same warning set.
function(korvel_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra)
  if(KORVEL_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
