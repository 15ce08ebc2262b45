#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "OrinLink/screenstream/DisplayBackend.h"
#include "OrinLink/screenstream/VirtualDisplayFactory.h"

namespace orin::screen {

enum class DesktopSessionKind { x11, wayland };

// Wayland when WAYLAND_DISPLAY is set or XDG_SESSION_TYPE says so; X11 otherwise. Takes the
// variables' values (null when unset).
DesktopSessionKind desktopSessionKind(const char* waylandDisplay, const char* sessionType);
DesktopSessionKind currentDesktopSessionKind();

struct WaylandCaptureOptions {
  // Where the portal's restore token is kept.
  std::filesystem::path configDirectory;
  // How long a screen cast may take to deliver its first frame.
  std::chrono::milliseconds startTimeout = std::chrono::seconds(10);
};

// Display capture and virtual displays on a Wayland desktop: GNOME's own screen-cast service
// where it answers, else the desktop portal, read through PipeWire either way. The choice is made
// at the first listing and made again while neither answers, so installing a portal or starting
// PipeWire needs no restart. Never touches Xwayland.
struct WaylandBindings {
  std::shared_ptr<DisplayBackend> displays;
  std::shared_ptr<VirtualDisplayFactory> virtualDisplays;
  // "GNOME screen cast through PipeWire", or why nothing can capture. Blocks on a first probe.
  std::function<std::string()> describe;
};
WaylandBindings makeWaylandBindings(const WaylandCaptureOptions& options);

}  // namespace orin::screen
