#include "OrinLinkShared/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace orin {

void fatalError(std::string_view message, const char* file, unsigned line) {
  std::fprintf(stderr, "fatal error: %.*s (%s:%u)\n", static_cast<int>(message.size()),
               message.data(), file, line);
  std::abort();
}

}  // namespace orin
