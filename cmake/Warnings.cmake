# One place for the warning set, so every target (tests and fuzzers included) builds the same way.
function(orin_set_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast -Wcast-align
    -Wdouble-promotion -Wimplicit-fallthrough)
  if(ORIN_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
