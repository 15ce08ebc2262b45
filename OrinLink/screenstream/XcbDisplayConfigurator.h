#pragma once

#include <memory>
#include <span>
#include <string>
#include <xcb/randr.h>
#include <xcb/xcb.h>

#include "OrinLink/screenstream/DisplayConfigurator.h"

namespace orin::screen {

// SetMonitor, built by hand: libxcb 1.15's xcb_randr_set_monitor leaves part of its request
// vector unset and fails at random ("request too long", connection error 4). A checked request;
// `monitor.nOutput` is taken from `outputs`.
xcb_void_cookie_t sendSetMonitor(xcb_connection_t* connection, xcb_window_t root,
                                 xcb_randr_monitor_info_t monitor,
                                 std::span<const xcb_randr_output_t> outputs);

// RandR on the default screen of one X connection of its own.
class XcbDisplayConfigurator : public DisplayConfigurator {
 public:
  // `displayName` as xcb_connect takes it; empty means $DISPLAY. Throws
  // displayServerUnreachable.
  explicit XcbDisplayConfigurator(const std::string& displayName = {});
  ~XcbDisplayConfigurator() override;
  XcbDisplayConfigurator(const XcbDisplayConfigurator&) = delete;
  XcbDisplayConfigurator& operator=(const XcbDisplayConfigurator&) = delete;

  bool hasMonitors() override;
  ScreenLimits limits() override;
  ScreenState screen() override;
  std::vector<OutputInfo> outputs() override;
  std::vector<ModeInfo> modes() override;
  std::vector<MonitorInfo> monitors() override;

  RandRId createMode(const std::string& name, const ModeTiming& timing) override;
  void destroyMode(RandRId mode) override;
  void addOutputMode(RandRId output, RandRId mode) override;
  void deleteOutputMode(RandRId output, RandRId mode) override;
  void setScreenSize(std::uint32_t width, std::uint32_t height, std::uint32_t widthMM,
                     std::uint32_t heightMM) override;
  void setCrtc(const CrtcState& state) override;
  void setPrimary(RandRId output) override;
  void setMonitor(const MonitorInfo& monitor) override;
  void deleteMonitor(const std::string& name) override;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace orin::screen
