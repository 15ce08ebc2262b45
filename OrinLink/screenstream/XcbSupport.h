#pragma once

#include <cstdlib>
#include <memory>
#include <string>

namespace orin::screen {

// xcb replies are malloc'd and owned by the caller.
struct FreeReply {
  void operator()(void* p) const { std::free(p); }
};
template <typename T>
using Reply = std::unique_ptr<T, FreeReply>;

// The display to connect to: the one given, else $DISPLAY.
inline std::string effectiveDisplayName(const std::string& given) {
  if (!given.empty()) return given;
  const char* fromEnvironment = std::getenv("DISPLAY");
  return fromEnvironment ? fromEnvironment : "";
}

}  // namespace orin::screen
