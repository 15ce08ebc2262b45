#include "OrinLink/screenstream/VirtualDisplayError.h"

namespace orin::screen {

namespace {

std::string size(std::uint32_t width, std::uint32_t height) {
  return std::to_string(width) + "\u00D7" + std::to_string(height);
}

}  // namespace

VirtualDisplayError VirtualDisplayError::unsupported() {
  return {Kind::unsupported,
          "This X display cannot add a virtual display: it needs RandR 1.5 or a free virtual "
          "output."};
}

VirtualDisplayError VirtualDisplayError::invalidSize(std::uint32_t width, std::uint32_t height) {
  return {Kind::invalidSize, "A virtual display of " + size(width, height) + " is not possible."};
}

VirtualDisplayError VirtualDisplayError::tooLarge(std::uint32_t width, std::uint32_t height,
                                                  std::uint32_t maxWidth, std::uint32_t maxHeight) {
  return {Kind::tooLarge, "The X screen cannot grow to " + size(width, height) +
                              " to make room for the virtual display (at most " +
                              size(maxWidth, maxHeight) + ")."};
}

VirtualDisplayError VirtualDisplayError::displayServerUnreachable(std::string_view displayName) {
  if (displayName.empty()) {
    return {Kind::displayServerUnreachable,
            "No X display for a virtual display: DISPLAY is not set. Start Orin Link inside your "
            "desktop session."};
  }
  return {Kind::displayServerUnreachable,
          "Could not connect to the X display \"" + std::string(displayName) +
              "\". Start Orin Link inside your desktop session, or set DISPLAY to its display."};
}

VirtualDisplayError VirtualDisplayError::connectionLost() {
  return {Kind::connectionLost, "The connection to the X display was lost."};
}

VirtualDisplayError VirtualDisplayError::requestFailed(std::string_view origin,
                                                       std::int32_t status) {
  return {Kind::requestFailed, "Could not set up the virtual display (" + std::string(origin) +
                                   " error " + std::to_string(status) + ")."};
}

}  // namespace orin::screen
