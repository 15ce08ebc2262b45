#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orin::screen {

// RandR resource ids (outputs, CRTCs, modes). 0 means none.
using RandRId = std::uint32_t;

inline constexpr std::uint16_t rotate0 = 1;
inline constexpr std::uint16_t rotate90 = 2;
inline constexpr std::uint16_t rotate270 = 8;

inline constexpr std::uint32_t modeFlagHSyncPositive = 1;
inline constexpr std::uint32_t modeFlagVSyncNegative = 8;

// The timings of one video mode, as RandR carries them (dot clock in hertz).
struct ModeTiming {
  std::uint16_t width = 0;
  std::uint16_t height = 0;
  std::uint32_t dotClock = 0;
  std::uint16_t hSyncStart = 0;
  std::uint16_t hSyncEnd = 0;
  std::uint16_t hTotal = 0;
  std::uint16_t vSyncStart = 0;
  std::uint16_t vSyncEnd = 0;
  std::uint16_t vTotal = 0;
  std::uint32_t flags = 0;
  bool operator==(const ModeTiming&) const = default;
};

struct ModeInfo {
  RandRId id = 0;
  std::string name;
  ModeTiming timing;
  bool operator==(const ModeInfo&) const = default;
};

// What one CRTC shows: mode 0 and no outputs when it is off.
struct CrtcState {
  RandRId crtc = 0;
  RandRId mode = 0;
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::uint16_t rotation = rotate0;
  std::vector<RandRId> outputs;
  bool operator==(const CrtcState&) const = default;
  bool active() const { return mode != 0; }
};

// The layout of the X screen: the framebuffer, every CRTC and the primary output.
struct ScreenState {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t widthMM = 0;
  std::uint32_t heightMM = 0;
  std::vector<CrtcState> crtcs;
  RandRId primary = 0;
  bool operator==(const ScreenState&) const = default;
};

struct ScreenLimits {
  std::uint32_t minWidth = 0;
  std::uint32_t minHeight = 0;
  std::uint32_t maxWidth = 0;
  std::uint32_t maxHeight = 0;
};

struct OutputInfo {
  RandRId id = 0;
  std::string name;
  bool connected = false;
  RandRId crtc = 0;
  std::vector<RandRId> possibleCrtcs;
  // The preferred modes come first.
  std::vector<RandRId> modes;
  std::uint32_t preferredModes = 0;
  bool operator==(const OutputInfo&) const = default;
};

// A RandR 1.5 monitor as listed (active ones only), in the server's order.
struct MonitorInfo {
  std::string name;
  std::int32_t x = 0;
  std::int32_t y = 0;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t widthMM = 0;
  std::uint32_t heightMM = 0;
  std::vector<RandRId> outputs;
  bool operator==(const MonitorInfo&) const = default;
};

// The RandR operations the virtual display needs, one X screen, so that the logic can be run
// against a fake. Every call may throw VirtualDisplayError; none retries.
class DisplayConfigurator {
 public:
  virtual ~DisplayConfigurator() = default;

  // RandR 1.5 (monitors), which the capture needs to list a display of its own.
  virtual bool hasMonitors() = 0;
  virtual ScreenLimits limits() = 0;
  virtual ScreenState screen() = 0;
  virtual std::vector<OutputInfo> outputs() = 0;
  virtual std::vector<ModeInfo> modes() = 0;
  virtual std::vector<MonitorInfo> monitors() = 0;

  virtual RandRId createMode(const std::string& name, const ModeTiming& timing) = 0;
  virtual void destroyMode(RandRId mode) = 0;
  virtual void addOutputMode(RandRId output, RandRId mode) = 0;
  virtual void deleteOutputMode(RandRId output, RandRId mode) = 0;
  virtual void setScreenSize(std::uint32_t width, std::uint32_t height, std::uint32_t widthMM,
                             std::uint32_t heightMM) = 0;
  virtual void setCrtc(const CrtcState& state) = 0;
  virtual void setPrimary(RandRId output) = 0;
  // Adds the monitor, or replaces the one of the same name.
  virtual void setMonitor(const MonitorInfo& monitor) = 0;
  virtual void deleteMonitor(const std::string& name) = 0;
};

}  // namespace orin::screen
