#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace orin::screen {

// A virtual display while it lives; destroying it removes it and gives the user's screens back.
class VirtualScreen {
 public:
  virtual ~VirtualScreen() = default;
  // The id under which display capture lists it.
  virtual std::uint32_t displayID() const = 0;
  // Makes it the only desktop; false when that was refused.
  virtual bool adoptAsSoleDesktop() = 0;
};

// Both calls block (round trips to the display server).
class VirtualDisplayFactory {
 public:
  virtual ~VirtualDisplayFactory() = default;
  virtual bool isSupported() = 0;
  // Why isSupported() is false, as the user is told; empty for the X display's own reason.
  virtual std::string whyUnsupported() { return {}; }
  // Throws an Error (VirtualDisplayError) with the text shown to the user.
  virtual std::unique_ptr<VirtualScreen> create(const std::string& name, std::uint32_t width,
                                                std::uint32_t height, double refreshRate) = 0;
};

}  // namespace orin::screen
