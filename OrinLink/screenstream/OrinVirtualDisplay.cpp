#include "OrinLink/screenstream/OrinVirtualDisplay.h"

#include <algorithm>

#include "OrinLink/screenstream/VirtualDisplayLayout.h"
#include "OrinLink/screenstream/XcbDisplayConfigurator.h"

namespace orin::screen {

namespace {

// RandR has no monitor without a name.
constexpr const char* fallbackName = "Virtual Display";

CrtcState* findCrtc(ScreenState& screen, RandRId crtc) {
  auto found = std::find_if(screen.crtcs.begin(), screen.crtcs.end(),
                            [&](const CrtcState& c) { return c.crtc == crtc; });
  return found == screen.crtcs.end() ? nullptr : &*found;
}

}  // namespace

bool OrinVirtualDisplay::isSupported(const std::string& xDisplay) {
  try {
    XcbDisplayConfigurator configurator(xDisplay);
    return isSupported(configurator);
  } catch (const VirtualDisplayError&) {
    return false;
  }
}

bool OrinVirtualDisplay::isSupported(DisplayConfigurator& configurator) {
  return configurator.hasMonitors();
}

std::unique_ptr<OrinVirtualDisplay> OrinVirtualDisplay::create(const std::string& name,
                                                               std::uint32_t pixelsWide,
                                                               std::uint32_t pixelsHigh,
                                                               double refreshRate,
                                                               const Options& options) {
  if (pixelsWide == 0 || pixelsHigh == 0) {
    throw VirtualDisplayError::invalidSize(pixelsWide, pixelsHigh);
  }
  auto configurator = std::make_unique<XcbDisplayConfigurator>(options.xDisplay);
  if (!isSupported(*configurator)) throw VirtualDisplayError::unsupported();
  std::string watchdog = options.watchdogPath;
  if (watchdog.empty()) watchdog = defaultWatchdogPath().value_or("");
  std::unique_ptr<DisplayGuard> guard;
  if (!watchdog.empty()) guard = DisplayWatchdog::start(watchdog, options.xDisplay);
  return create(std::move(configurator), std::move(guard), name, pixelsWide, pixelsHigh,
                refreshRate);
}

std::unique_ptr<OrinVirtualDisplay> OrinVirtualDisplay::create(
    std::unique_ptr<DisplayConfigurator> configurator, std::unique_ptr<DisplayGuard> guard,
    const std::string& name, std::uint32_t pixelsWide, std::uint32_t pixelsHigh,
    double refreshRate) {
  std::unique_ptr<OrinVirtualDisplay> display(
      new OrinVirtualDisplay(std::move(configurator), std::move(guard)));
  display->build(name.empty() ? fallbackName : name, pixelsWide, pixelsHigh, refreshRate);
  return display;
}

OrinVirtualDisplay::OrinVirtualDisplay(std::unique_ptr<DisplayConfigurator> configurator,
                                       std::unique_ptr<DisplayGuard> guard)
    : configurator_(std::move(configurator)), guard_(std::move(guard)) {}

OrinVirtualDisplay::~OrinVirtualDisplay() {
  invalidate();
}

void OrinVirtualDisplay::build(const std::string& name, std::uint32_t width, std::uint32_t height,
                               double refreshRate) {
  if (width == 0 || height == 0) throw VirtualDisplayError::invalidSize(width, height);
  DisplayConfigurator& c = *configurator_;
  if (!isSupported(c)) throw VirtualDisplayError::unsupported();
  ModeTiming timing = reducedBlankingTiming(width, height, refreshRate);

  ScreenState screen = c.screen();
  auto modes = c.modes();
  auto outputs = c.outputs();
  auto choice = chooseVirtualOutput(outputs, screen);
  std::int32_t x = desktopRightEdge(screen, modes, c.monitors());
  std::uint64_t needWidth =
      std::max<std::uint64_t>(screen.width, static_cast<std::uint64_t>(x) + width);
  std::uint64_t needHeight = std::max<std::uint64_t>(screen.height, height);
  ScreenLimits limits = c.limits();
  if (needWidth > limits.maxWidth || needHeight > limits.maxHeight) {
    throw VirtualDisplayError::tooLarge(static_cast<std::uint32_t>(needWidth),
                                        static_cast<std::uint32_t>(needHeight), limits.maxWidth,
                                        limits.maxHeight);
  }

  record_ = VirtualDisplayRecord{name,
                                 choice ? virtualModeName(name, timing) : "",
                                 choice ? choice->output : 0,
                                 choice ? choice->crtc : 0,
                                 width,
                                 height,
                                 x,
                                 0,
                                 screen.width,
                                 screen.height,
                                 screen.widthMM,
                                 screen.heightMM,
                                 screen.primary,
                                 std::nullopt};
  outputName_ = choice ? choice->name : "";
  live_ = true;
  tellGuard();
  try {
    ScreenState target = screen;
    target.width = static_cast<std::uint32_t>(needWidth);
    target.height = static_cast<std::uint32_t>(needHeight);
    if (target.width != screen.width || target.height != screen.height) {
      Millimetres mm = scaledMillimetres(screen, target.width, target.height);
      target.widthMM = mm.width;
      target.heightMM = mm.height;
    }
    if (choice) {
      // A mode left by a run that could not clean up is taken over rather than refused.
      auto existing = std::find_if(modes.begin(), modes.end(), [&](const ModeInfo& m) {
        return m.name == record_.modeName && m.timing == timing;
      });
      mode_ = existing != modes.end() ? existing->id : c.createMode(record_.modeName, timing);
      auto output = std::find_if(outputs.begin(), outputs.end(),
                                 [&](const OutputInfo& o) { return o.id == choice->output; });
      if (std::find(output->modes.begin(), output->modes.end(), mode_) == output->modes.end()) {
        c.addOutputMode(choice->output, mode_);
      }
      *findCrtc(target, choice->crtc) = {choice->crtc, mode_, x, 0, rotate0, {choice->output}};
    }
    if (auto failure = applyScreenState(c, target)) throw *failure;
    c.setMonitor(monitorOf(record_));
    displayID_ = displayIdOfMonitor(c.monitors(), name);
  } catch (const VirtualDisplayError&) {
    invalidate();
    throw;
  }
}

void OrinVirtualDisplay::tellGuard() {
  if (guard_ && !guard_->update(record_)) guard_.reset();
}

bool OrinVirtualDisplay::adoptNativeMode() {
  if (!live_) return false;
  DisplayConfigurator& c = *configurator_;
  try {
    if (record_.output == 0) {
      auto monitors = c.monitors();
      MonitorInfo wanted = monitorOf(record_);
      if (std::find(monitors.begin(), monitors.end(), wanted) == monitors.end()) {
        c.setMonitor(wanted);
      }
      return true;
    }
    ScreenState target = c.screen();
    CrtcState wanted{record_.crtc, mode_, record_.x, record_.y, rotate0, {record_.output}};
    CrtcState* crtc = findCrtc(target, record_.crtc);
    if (!crtc) return false;
    if (*crtc == wanted) return true;
    *crtc = wanted;
    target.width = std::max<std::uint32_t>(target.width,
                                           static_cast<std::uint32_t>(record_.x) + record_.width);
    target.height = std::max<std::uint32_t>(target.height,
                                            static_cast<std::uint32_t>(record_.y) + record_.height);
    return !applyScreenState(c, target);
  } catch (const VirtualDisplayError&) {
    return false;
  }
}

bool OrinVirtualDisplay::adoptAsSoleDesktop() {
  if (!live_ || displayID_ == 0) return false;
  if (isSoleDesktop_) return true;
  if (!guard_) return false;
  DisplayConfigurator& c = *configurator_;
  try {
    ScreenState current = c.screen();
    record_.sole = SoleDesktopState{current, record_.x, record_.y};
    if (!guard_->update(record_)) {
      record_.sole.reset();
      guard_.reset();
      return false;
    }
    auto failure = applyScreenState(c, soleDesktopLayout(current, record_));
    if (!failure) {
      VirtualDisplayRecord atOrigin = record_;
      atOrigin.x = 0;
      atOrigin.y = 0;
      c.setMonitor(monitorOf(atOrigin));
      record_ = atOrigin;
      isSoleDesktop_ = true;
      tellGuard();
      return true;
    }
  } catch (const VirtualDisplayError&) {
  }
  if (record_.sole) {
    isSoleDesktop_ = true;
    restoreSeparateDesktops();
  }
  return false;
}

void OrinVirtualDisplay::restoreSeparateDesktops() {
  if (!isSoleDesktop_) return;
  isSoleDesktop_ = false;
  // When this fails the record keeps the saved layout, for invalidate() or the watchdog.
  if (screen::restoreSeparateDesktops(*configurator_, record_)) return;
  record_.x = record_.sole->x;
  record_.y = record_.sole->y;
  record_.sole.reset();
  tellGuard();
}

void OrinVirtualDisplay::invalidate() {
  if (!live_) return;
  live_ = false;
  isSoleDesktop_ = false;
  displayID_ = 0;
  auto failure = restoreUserDesktop(*configurator_, record_);
  if (guard_ && !failure) guard_->release();
  guard_.reset();
}

}  // namespace orin::screen
