#pragma once

#include <string_view>

namespace orin {

// Invariants hold in every build; a broken one is a programming error, never an input error.
// The call site comes from the builtins rather than std::source_location, which clang 14 (the
// fuzzing compiler) cannot provide with libstdc++.
[[noreturn]] void fatalError(std::string_view message, const char* file = __builtin_FILE(),
                             unsigned line = __builtin_LINE());

}  // namespace orin

#define ORIN_ASSERT(condition, message) \
  do {                                  \
    if (!(condition)) {                 \
      ::orin::fatalError(message);      \
    }                                   \
  } while (false)
