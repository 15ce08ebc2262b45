#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "OrinLink/screenstream/DisplayConfigurator.h"
#include "OrinLink/screenstream/DisplayWatchdog.h"
#include "OrinLink/screenstream/VirtualDisplayError.h"
#include "OrinLink/screenstream/VirtualDisplayRecord.h"

namespace orin::screen {

// An extra display of a chosen size on the X screen, placed to the right of the desktop: a free
// virtual output (the dummy driver's DUMMYn, the intel driver's VIRTUALn) given a mode of that
// size, or else a bare RandR 1.5 monitor over an enlarged framebuffer. Either way it is a RandR
// monitor named after the display, so the capture lists it under displayID(). Used from one
// thread at a time.
class OrinVirtualDisplay {
 public:
  struct Options {
    // As xcb_connect takes it; empty means $DISPLAY.
    std::string xDisplay;
    // The watchdog executable; empty means the one next to the running executable.
    std::string watchdogPath;
  };

  // Whether the X display can hold one (RandR 1.5). False when it cannot be reached.
  static bool isSupported(const std::string& xDisplay = {});
  static bool isSupported(DisplayConfigurator& configurator);

  // Throws VirtualDisplayError. Without a watchdog the display still works, but never becomes
  // the sole desktop.
  static std::unique_ptr<OrinVirtualDisplay> create(const std::string& name,
                                                    std::uint32_t pixelsWide,
                                                    std::uint32_t pixelsHigh, double refreshRate,
                                                    const Options& options = {});
  static std::unique_ptr<OrinVirtualDisplay> create(
      std::unique_ptr<DisplayConfigurator> configurator, std::unique_ptr<DisplayGuard> guard,
      const std::string& name, std::uint32_t pixelsWide, std::uint32_t pixelsHigh,
      double refreshRate);

  ~OrinVirtualDisplay();
  OrinVirtualDisplay(const OrinVirtualDisplay&) = delete;
  OrinVirtualDisplay& operator=(const OrinVirtualDisplay&) = delete;

  // Shows the display at its requested size again if something changed it.
  bool adoptNativeMode();
  // Switches every other display off and leaves this one alone at the origin of a framebuffer
  // of its size. Refused without a watchdog, which could otherwise leave the user's screens off.
  bool adoptAsSoleDesktop();
  // Puts the other displays back exactly as they were. Nothing unless sole desktop.
  void restoreSeparateDesktops();
  // Restores separate desktops and removes everything the display added. Harmless twice.
  void invalidate();

  std::uint32_t displayID() const { return displayID_; }
  std::uint32_t pixelsWide() const { return record_.width; }
  std::uint32_t pixelsHigh() const { return record_.height; }
  bool isSoleDesktop() const { return isSoleDesktop_; }
  // The output that shows it; empty when it is a bare monitor.
  const std::string& outputName() const { return outputName_; }

 private:
  OrinVirtualDisplay(std::unique_ptr<DisplayConfigurator> configurator,
                     std::unique_ptr<DisplayGuard> guard);
  void build(const std::string& name, std::uint32_t width, std::uint32_t height,
             double refreshRate);
  void tellGuard();

  std::unique_ptr<DisplayConfigurator> configurator_;
  std::unique_ptr<DisplayGuard> guard_;
  VirtualDisplayRecord record_;
  std::string outputName_;
  RandRId mode_ = 0;
  std::uint32_t displayID_ = 0;
  bool isSoleDesktop_ = false;
  bool live_ = false;
};

}  // namespace orin::screen
