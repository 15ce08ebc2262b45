#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "OrinLink/screenstream/CapturedFrame.h"

namespace orin::screen {

// A display as the platform reports it, before it is named for the user.
struct BackendDisplay {
  std::uint32_t id = 0;
  // The name the platform gives the screen, when it has one.
  std::optional<std::string> screenName;
  int pointWidth = 0;
  int pointHeight = 0;
};

// One running capture of one display, driven by the capture thread.
class FrameSource {
 public:
  virtual ~FrameSource() = default;
  // Grabs the display now. Nothing when every buffer is still held downstream (the tick is
  // skipped). Throws DisplayCaptureError when the display or the connection is gone.
  virtual std::optional<CapturedFrame> grab() = 0;
};

// The platform binding of display capture. Both calls may block briefly (round trips to the
// display server) and throw DisplayCaptureError.
class DisplayBackend {
 public:
  virtual ~DisplayBackend() = default;
  virtual std::vector<BackendDisplay> displays() = 0;
  // Throws displayNotFound when no display has this id.
  virtual std::unique_ptr<FrameSource> open(std::uint32_t displayID) = 0;
};

}  // namespace orin::screen
