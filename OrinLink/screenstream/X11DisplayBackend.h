#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "OrinLink/screenstream/DisplayBackend.h"

namespace orin::screen {

// Displays are the RandR 1.5 monitors of the X screen (the whole screen when there are none),
// grabbed through MIT-SHM into a small pool of shared segments with the cursor drawn in from
// XFixes. Each capture has a connection of its own, used only by the capture thread.
class X11DisplayBackend : public DisplayBackend {
 public:
  // `displayName` as xcb_connect takes it; empty means $DISPLAY. Three buffers are enough when
  // the consumer keeps only the newest frame: one being encoded, one waiting, one being grabbed.
  explicit X11DisplayBackend(std::string displayName = {}, std::size_t bufferCount = 3);

  std::vector<BackendDisplay> displays() override;
  std::unique_ptr<FrameSource> open(std::uint32_t displayID) override;

 private:
  std::string displayName_;
  std::size_t bufferCount_;
};

// The id of the whole screen when RandR lists no monitor.
inline constexpr std::uint32_t wholeScreenDisplayID = 1;

// The id of the RandR monitor with this name (for a monitor RandR made itself, the output's
// name, such as "DP-1"). A hash of the name rather than an XID or an atom, because those are
// handed out afresh whenever the X server starts, and the chosen id is kept in the settings.
// Never 0 (no display) nor wholeScreenDisplayID.
std::uint32_t displayIdForMonitorName(std::string_view name);

// The id of the monitor with this name when `earlier` holds the ids of the monitors listed
// before it: a clash of two names' hashes moves the later one on, in the server's stable order.
std::uint32_t displayIdForMonitorName(std::string_view name,
                                      std::span<const std::uint32_t> earlier);

// The monitor name of an EDID block (display descriptor 0xFC), without padding.
std::optional<std::string> edidMonitorName(std::span<const std::uint8_t> edid);

// Composites a premultiplied ARGB cursor image over BGRA pixels with its top-left corner at
// (left, top); whatever falls outside the image is clipped.
void blendCursor(std::uint8_t* bgra, int width, int height, int bytesPerRow,
                 const std::uint32_t* argb, int cursorWidth, int cursorHeight, int left, int top);

}  // namespace orin::screen
