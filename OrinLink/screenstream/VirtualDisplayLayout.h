#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "OrinLink/screenstream/DisplayConfigurator.h"
#include "OrinLink/screenstream/VirtualDisplayError.h"

namespace orin::screen {

// Exactly width × height at about `refreshRate` hertz, with CVT reduced blanking (version 1)
// but without rounding the width to whole character cells. The short blanking keeps the pixel
// clock low enough for drivers that cap it (the dummy driver's 300 MHz) at common sizes.
// Throws invalidSize when RandR cannot express it.
ModeTiming reducedBlankingTiming(std::uint32_t width, std::uint32_t height, double refreshRate);

double refreshRateOf(const ModeTiming& timing);

// The physical size of `pixels` on a panel of 109 pixels per inch.
std::uint32_t millimetresAt109ppi(std::uint32_t pixels);

// The name of the RandR mode made for a virtual display; unique per display name, size and rate
// so that a leftover of an earlier run is recognised.
std::string virtualModeName(std::string_view displayName, const ModeTiming& timing);

// Outputs that drive no screen of their own: the dummy driver's DUMMYn, the intel driver's
// VIRTUALn.
bool isVirtualOutputName(std::string_view name);

struct OutputChoice {
  RandRId output = 0;
  RandRId crtc = 0;
  std::string name;
  bool operator==(const OutputChoice&) const = default;
};

// An idle virtual output with an idle CRTC that can drive it. Disconnected ones come first; a
// connected DUMMYn is taken too, since the dummy driver reports every output it ever drove as
// connected, whereas a connected VIRTUALn mirrors a real screen on another GPU.
std::optional<OutputChoice> chooseVirtualOutput(const std::vector<OutputInfo>& outputs,
                                                const ScreenState& screen);

struct Rect {
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  bool operator==(const Rect&) const = default;
};

// The part of the framebuffer a CRTC shows; nothing when it is off or its mode is unknown.
std::optional<Rect> crtcBounds(const CrtcState& crtc, const std::vector<ModeInfo>& modes);

// Where a display placed to the right of everything shown lands: past every active CRTC and
// every monitor, or past the whole framebuffer when neither exists.
std::int32_t desktopRightEdge(const ScreenState& screen, const std::vector<ModeInfo>& modes,
                              const std::vector<MonitorInfo>& monitors);

struct Millimetres {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  bool operator==(const Millimetres&) const = default;
};

// The physical size for a framebuffer resized from `screen`, keeping its pixel density so that
// applications keep their scale (109 ppi when it reports none). Never 0, which RandR refuses.
Millimetres scaledMillimetres(const ScreenState& screen, std::uint32_t width, std::uint32_t height);

// The id the capture gives the monitor named `name` among `monitors`; the plain hash of the
// name when it is not listed.
std::uint32_t displayIdOfMonitor(const std::vector<MonitorInfo>& monitors, std::string_view name);

// Moves the screen to `target` CRTC by CRTC: first off what goes off or changes outputs, then
// the framebuffer grows, then CRTCs are set, then the framebuffer takes its final size, then the
// primary. CRTCs that `target` does not list are left as they are. Carries on past a refused
// step and returns the first failure, so a restore does as much as it can.
std::optional<VirtualDisplayError> applyScreenState(DisplayConfigurator& configurator,
                                                    const ScreenState& target);

}  // namespace orin::screen
