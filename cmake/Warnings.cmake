# One place for the warning set, so every target (tests and fuzzers included) builds the same way.
function(orin_set_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
    -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast -Wcast-align
    -Wdouble-promotion -Wimplicit-fallthrough)
  # GCC 12 reports -Wrestrict on ordinary std::string concatenation when optimising (a known
  # false positive in the library headers), so it cannot gate release builds.
  # At -O1 (the sanitizer builds) it also pairs Boost.Asio's aligned operator new for coroutine
  # frames with the frame's sized operator delete and calls them mismatched, which they are not.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-restrict -Wno-mismatched-new-delete)
  endif()
  if(ORIN_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()
