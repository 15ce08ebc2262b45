#include "OrinLink/screenstream/VirtualDisplayLayout.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "OrinLink/screenstream/X11DisplayBackend.h"

namespace orin::screen {

namespace {

// The vertical sync width tells a sink the aspect ratio.
std::uint32_t vSyncWidth(std::uint32_t w, std::uint32_t h) {
  if (h % 3 == 0 && h * 4 / 3 == w) return 4;
  if (h % 9 == 0 && h * 16 / 9 == w) return 5;
  if (h % 10 == 0 && h * 16 / 10 == w) return 6;
  if (h % 4 == 0 && h * 5 / 4 == w) return 7;
  if (h % 9 == 0 && h * 15 / 9 == w) return 7;
  return 10;
}

std::uint32_t roundedRatio(std::uint64_t numerator, std::uint64_t denominator) {
  return static_cast<std::uint32_t>((numerator + denominator / 2) / denominator);
}

template <typename Screen>
auto findCrtc(Screen& screen, RandRId crtc) -> decltype(&screen.crtcs.front()) {
  for (auto& c : screen.crtcs) {
    if (c.crtc == crtc) return &c;
  }
  return nullptr;
}

}  // namespace

ModeTiming reducedBlankingTiming(std::uint32_t width, std::uint32_t height, double refreshRate) {
  constexpr std::uint32_t hBlank = 160;
  constexpr std::uint32_t hFrontPorch = 48;
  constexpr std::uint32_t hSync = 32;
  constexpr double minVBlankMicroseconds = 460;
  constexpr std::uint32_t vFrontPorch = 3;
  constexpr std::uint32_t minVBackPorch = 6;
  constexpr double clockStep = 250'000;
  constexpr std::uint32_t limit = std::numeric_limits<std::uint16_t>::max();

  if (width == 0 || height == 0 || width + hBlank > limit || height > limit ||
      !std::isfinite(refreshRate) || refreshRate <= 0) {
    throw VirtualDisplayError::invalidSize(width, height);
  }
  double framePeriod = 1'000'000.0 / refreshRate;
  double lineEstimate = (framePeriod - minVBlankMicroseconds) / height;
  if (lineEstimate <= 0) throw VirtualDisplayError::invalidSize(width, height);
  std::uint32_t vSync = vSyncWidth(width, height);
  double blankLines = std::floor(minVBlankMicroseconds / lineEstimate) + 1;
  std::uint32_t vBlank =
      std::max(vFrontPorch + vSync + minVBackPorch,
               blankLines > limit ? limit : static_cast<std::uint32_t>(blankLines));
  std::uint32_t vTotal = height + vBlank;
  std::uint32_t hTotal = width + hBlank;
  if (vTotal > limit) throw VirtualDisplayError::invalidSize(width, height);
  double clock = std::floor(refreshRate * vTotal * hTotal / clockStep) * clockStep;
  if (clock < clockStep || clock > std::numeric_limits<std::uint32_t>::max()) {
    throw VirtualDisplayError::invalidSize(width, height);
  }

  ModeTiming t;
  t.width = static_cast<std::uint16_t>(width);
  t.height = static_cast<std::uint16_t>(height);
  t.dotClock = static_cast<std::uint32_t>(clock);
  t.hSyncStart = static_cast<std::uint16_t>(width + hFrontPorch);
  t.hSyncEnd = static_cast<std::uint16_t>(width + hFrontPorch + hSync);
  t.hTotal = static_cast<std::uint16_t>(hTotal);
  t.vSyncStart = static_cast<std::uint16_t>(height + vFrontPorch);
  t.vSyncEnd = static_cast<std::uint16_t>(height + vFrontPorch + vSync);
  t.vTotal = static_cast<std::uint16_t>(vTotal);
  t.flags = modeFlagHSyncPositive | modeFlagVSyncNegative;
  return t;
}

double refreshRateOf(const ModeTiming& timing) {
  if (timing.hTotal == 0 || timing.vTotal == 0) return 0;
  return timing.dotClock / (static_cast<double>(timing.hTotal) * timing.vTotal);
}

std::uint32_t millimetresAt109ppi(std::uint32_t pixels) {
  return static_cast<std::uint32_t>(std::lround(pixels / 109.0 * 25.4));
}

std::string virtualModeName(std::string_view displayName, const ModeTiming& timing) {
  char rate[32];
  std::snprintf(rate, sizeof rate, "%.2f", refreshRateOf(timing));
  return std::string(displayName) + " " + std::to_string(timing.width) + "x" +
         std::to_string(timing.height) + "@" + rate;
}

bool isVirtualOutputName(std::string_view name) {
  for (std::string_view prefix : {"DUMMY", "VIRTUAL"}) {
    if (!name.starts_with(prefix)) continue;
    std::string_view rest = name.substr(prefix.size());
    if (rest.starts_with('-')) rest.remove_prefix(1);
    return !rest.empty() &&
           std::all_of(rest.begin(), rest.end(), [](char c) { return c >= '0' && c <= '9'; });
  }
  return false;
}

std::optional<OutputChoice> chooseVirtualOutput(const std::vector<OutputInfo>& outputs,
                                                const ScreenState& screen) {
  auto driven = [&](RandRId output) {
    return std::any_of(screen.crtcs.begin(), screen.crtcs.end(), [&](const CrtcState& c) {
      return std::find(c.outputs.begin(), c.outputs.end(), output) != c.outputs.end();
    });
  };
  for (bool connected : {false, true}) {
    for (const auto& output : outputs) {
      if (output.connected != connected || output.crtc != 0 || driven(output.id)) continue;
      if (!isVirtualOutputName(output.name)) continue;
      if (connected && !output.name.starts_with("DUMMY")) continue;
      for (RandRId crtc : output.possibleCrtcs) {
        const CrtcState* state = findCrtc(screen, crtc);
        if (state && !state->active() && state->outputs.empty()) {
          return OutputChoice{output.id, crtc, output.name};
        }
      }
    }
  }
  return std::nullopt;
}

std::optional<Rect> crtcBounds(const CrtcState& crtc, const std::vector<ModeInfo>& modes) {
  if (!crtc.active()) return std::nullopt;
  auto mode = std::find_if(modes.begin(), modes.end(),
                           [&](const ModeInfo& m) { return m.id == crtc.mode; });
  if (mode == modes.end()) return std::nullopt;
  bool sideways = crtc.rotation & (rotate90 | rotate270);
  return Rect{crtc.x, crtc.y, sideways ? mode->timing.height : mode->timing.width,
              sideways ? mode->timing.width : mode->timing.height};
}

std::int32_t desktopRightEdge(const ScreenState& screen, const std::vector<ModeInfo>& modes,
                              const std::vector<MonitorInfo>& monitors) {
  std::optional<std::int64_t> edge;
  auto extend = [&](std::int64_t right) { edge = std::max(edge.value_or(right), right); };
  for (const auto& crtc : screen.crtcs) {
    if (auto bounds = crtcBounds(crtc, modes)) extend(bounds->x + std::int64_t{bounds->width});
  }
  for (const auto& monitor : monitors) {
    if (monitor.width > 0 && monitor.height > 0) extend(monitor.x + std::int64_t{monitor.width});
  }
  return static_cast<std::int32_t>(std::max<std::int64_t>(edge.value_or(screen.width), 0));
}

Millimetres scaledMillimetres(const ScreenState& screen, std::uint32_t width,
                              std::uint32_t height) {
  Millimetres mm{millimetresAt109ppi(width), millimetresAt109ppi(height)};
  if (screen.width > 0 && screen.widthMM > 0) {
    mm.width = roundedRatio(std::uint64_t{width} * screen.widthMM, screen.width);
  }
  if (screen.height > 0 && screen.heightMM > 0) {
    mm.height = roundedRatio(std::uint64_t{height} * screen.heightMM, screen.height);
  }
  return {std::max<std::uint32_t>(mm.width, 1), std::max<std::uint32_t>(mm.height, 1)};
}

std::uint32_t displayIdOfMonitor(const std::vector<MonitorInfo>& monitors, std::string_view name) {
  std::vector<std::uint32_t> ids;
  for (const auto& monitor : monitors) {
    if (monitor.width == 0 || monitor.height == 0) continue;
    std::uint32_t id = displayIdForMonitorName(monitor.name, ids);
    if (monitor.name == name) return id;
    ids.push_back(id);
  }
  return displayIdForMonitorName(name);
}

std::optional<VirtualDisplayError> applyScreenState(DisplayConfigurator& configurator,
                                                    const ScreenState& target) {
  std::optional<VirtualDisplayError> failure;
  auto attempt = [&](auto&& step) {
    try {
      step();
      return true;
    } catch (const VirtualDisplayError& error) {
      if (!failure) failure = error;
      if (error.kind() == VirtualDisplayError::Kind::connectionLost) throw;
      return false;
    }
  };

  ScreenState current;
  try {
    current = configurator.screen();
  } catch (const VirtualDisplayError& error) {
    return error;
  }

  try {
    for (const auto& wanted : target.crtcs) {
      CrtcState* now = findCrtc(current, wanted.crtc);
      if (!now || *now == wanted || !now->active()) continue;
      if (wanted.active() && now->outputs == wanted.outputs) continue;
      CrtcState off{wanted.crtc, 0, 0, 0, rotate0, {}};
      if (attempt([&] { configurator.setCrtc(off); })) *now = off;
    }

    std::uint32_t roomWidth = std::max(current.width, target.width);
    std::uint32_t roomHeight = std::max(current.height, target.height);
    if (roomWidth != current.width || roomHeight != current.height) {
      Millimetres mm = roomWidth == target.width && roomHeight == target.height
                           ? Millimetres{target.widthMM, target.heightMM}
                           : scaledMillimetres(current, roomWidth, roomHeight);
      if (attempt(
              [&] { configurator.setScreenSize(roomWidth, roomHeight, mm.width, mm.height); })) {
        current.width = roomWidth;
        current.height = roomHeight;
        current.widthMM = mm.width;
        current.heightMM = mm.height;
      }
    }

    for (const auto& wanted : target.crtcs) {
      CrtcState* now = findCrtc(current, wanted.crtc);
      if (!now || *now == wanted || !wanted.active()) continue;
      if (attempt([&] { configurator.setCrtc(wanted); })) *now = wanted;
    }

    if (current.width != target.width || current.height != target.height ||
        current.widthMM != target.widthMM || current.heightMM != target.heightMM) {
      attempt([&] {
        configurator.setScreenSize(target.width, target.height, target.widthMM, target.heightMM);
      });
    }
    if (current.primary != target.primary) {
      attempt([&] { configurator.setPrimary(target.primary); });
    }
  } catch (const VirtualDisplayError&) {
  }
  return failure;
}

}  // namespace orin::screen
