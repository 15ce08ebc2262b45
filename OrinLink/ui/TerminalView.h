#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>

#include <boost/asio/any_io_executor.hpp>

#include "OrinLink/core/AppState.h"

namespace orin {

// What `orinlink` shows in its terminal. On a terminal: a live view of the pairing code, its
// time left, the QR code and the latest event, redrawn as they change. Elsewhere (a log, the
// journal): one line per event and no pairing code, which belongs on the screen only.
class TerminalView {
 public:
  TerminalView(std::shared_ptr<AppState> app, boost::asio::any_io_executor main,
               std::FILE* out = stdout);
  ~TerminalView();

  bool isLive() const { return live_; }
  // Where the control panel answers, once it does.
  void setControlPort(std::uint16_t port);

 private:
  void onChange(std::string_view property);
  void redraw();

  std::weak_ptr<AppState> app_;
  boost::asio::any_io_executor main_;
  std::FILE* out_;
  bool live_;
  std::uint64_t subscription_ = 0;
  bool redrawScheduled_ = false;
  std::string lastPrintedEvent_;
  std::uint16_t controlPort_ = 0;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace orin
