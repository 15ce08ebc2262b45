#pragma once

#include <source_location>
#include <string_view>

namespace orin {

// Invariants hold in every build; a broken one is a programming error, never an input error.
[[noreturn]] void fatalError(std::string_view message,
                             std::source_location where = std::source_location::current());

}  // namespace orin

#define ORIN_ASSERT(condition, message) \
  do {                                  \
    if (!(condition)) {                 \
      ::orin::fatalError(message);      \
    }                                   \
  } while (false)
