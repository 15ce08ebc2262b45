#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "OrinLink/screenstream/DisplayConfigurator.h"
#include "OrinLink/screenstream/VirtualDisplayError.h"

namespace orin::screen {

struct SoleDesktopState {
  // The whole layout just before the other displays went off.
  ScreenState before;
  // Where the virtual display was then.
  std::int32_t x = 0;
  std::int32_t y = 0;
  bool operator==(const SoleDesktopState&) const = default;
};

// What a virtual display changed, by name and id, so that it can be undone from the current
// state of the server: by the display itself, or by the watchdog after this process died.
struct VirtualDisplayRecord {
  // The RandR monitor's name, which is also the display's name.
  std::string name;
  // Set when the display is a virtual output; empty for a bare monitor.
  std::string modeName;
  RandRId output = 0;
  RandRId crtc = 0;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::int32_t x = 0;
  std::int32_t y = 0;
  // The framebuffer and primary output before the display was added.
  std::uint32_t originalWidth = 0;
  std::uint32_t originalHeight = 0;
  std::uint32_t originalWidthMM = 0;
  std::uint32_t originalHeightMM = 0;
  RandRId originalPrimary = 0;
  std::optional<SoleDesktopState> sole;
  bool operator==(const VirtualDisplayRecord&) const = default;
};

// One line of JSON, without a line break.
std::string encodeRecord(const VirtualDisplayRecord& record);
// Nothing for a line that is not a record.
std::optional<VirtualDisplayRecord> decodeRecord(std::string_view line);

// The RandR monitor that makes the display visible to the capture, sized at 109 ppi.
MonitorInfo monitorOf(const VirtualDisplayRecord& record);

// Every other CRTC off, the display alone at the origin, the framebuffer shrunk to it and its
// output primary.
ScreenState soleDesktopLayout(const ScreenState& current, const VirtualDisplayRecord& record);

// Puts back the layout saved when the display became the sole desktop; nothing without one.
std::optional<VirtualDisplayError> restoreSeparateDesktops(DisplayConfigurator& configurator,
                                                           const VirtualDisplayRecord& record);

// Takes away the monitor, the output's configuration and the mode, and gives the framebuffer
// back its size (larger only when something else now needs the room). Doing it again changes
// nothing.
std::optional<VirtualDisplayError> removeVirtualDisplay(DisplayConfigurator& configurator,
                                                        const VirtualDisplayRecord& record);

// Both of the above; then, if the user's screens had been switched off and none came back on,
// the first connected output is switched on at its preferred mode so the user is never left
// without a screen. Best effort: returns the first failure.
std::optional<VirtualDisplayError> restoreUserDesktop(DisplayConfigurator& configurator,
                                                      const VirtualDisplayRecord& record);

}  // namespace orin::screen
