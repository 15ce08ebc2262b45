#include "OrinLinkShared/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace orin {

void fatalError(std::string_view message, std::source_location where) {
  std::fprintf(stderr, "fatal error: %.*s (%s:%u)\n", static_cast<int>(message.size()),
               message.data(), where.file_name(), static_cast<unsigned>(where.line()));
  std::abort();
}

}  // namespace orin
