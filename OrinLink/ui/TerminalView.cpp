#include "OrinLink/ui/TerminalView.h"

#include <algorithm>
#include <sys/ioctl.h>
#include <unistd.h>

#include <boost/asio/post.hpp>

#include "OrinLink/ui/QRCode.h"

namespace orin {

TerminalView::TerminalView(std::shared_ptr<AppState> app, boost::asio::any_io_executor main,
                           std::FILE* out)
    : app_(app), main_(std::move(main)), out_(out), live_(::isatty(::fileno(out)) == 1) {
  subscription_ = app->observe([this](std::string_view property) { onChange(property); });
  if (live_) redraw();
}

TerminalView::~TerminalView() {
  *alive_ = false;
  if (auto app = app_.lock()) app->unobserve(subscription_);
}

void TerminalView::setControlPort(std::uint16_t port) {
  controlPort_ = port;
  if (live_) {
    redraw();
  } else {
    std::fprintf(out_, "Control API on 127.0.0.1:%u.\n", static_cast<unsigned>(port));
    std::fflush(out_);
  }
}

void TerminalView::onChange(std::string_view property) {
  auto app = app_.lock();
  if (!app) return;
  if (!live_) {
    if (property == "lastEvent" && app->properties().lastEvent != lastPrintedEvent_) {
      lastPrintedEvent_ = app->properties().lastEvent;
      std::fprintf(out_, "%s\n", lastPrintedEvent_.c_str());
      std::fflush(out_);
    }
    return;
  }
  // Many changes in one turn of the loop make one redraw.
  if (redrawScheduled_) return;
  redrawScheduled_ = true;
  boost::asio::post(main_, [this, alive = alive_] {
    if (!*alive) return;
    redrawScheduled_ = false;
    redraw();
  });
}

void TerminalView::redraw() {
  auto app = app_.lock();
  if (!app) return;
  const auto& p = app->properties();
  const auto& registry = app->registry();
  const std::int64_t remaining = registry.pairingCodeRemainingSeconds();
  std::string screen;
  screen += "Orin Link\n\n";
  screen += "Pairing code  " + registry.pairingCode() + "   (" + std::to_string(remaining / 60) +
            ":" + (remaining % 60 < 10 ? "0" : "") + std::to_string(remaining % 60) + " left)\n\n";
  // A code cut off by the window's edge does not scan; say how to see it instead.
  const std::string qr = qrForTerminal(app->pairingPayload());
  const auto qrLines = static_cast<std::size_t>(std::count(qr.begin(), qr.end(), '\n'));
  const std::size_t qrColumns = qrLines * 2;
  winsize window{};
  const bool known = ::ioctl(::fileno(out_), TIOCGWINSZ, &window) == 0 && window.ws_row > 0;
  if (!known || (window.ws_row >= qrLines + 12 && window.ws_col >= qrColumns)) {
    screen += qr;
  } else {
    screen += "(Make this window at least " + std::to_string(qrColumns) + " columns by " +
              std::to_string(qrLines + 12) + " rows to show the QR code, or run: orinlink pair)\n";
  }
  screen += "\nAI service    ";
  screen += p.isServerRunning ? "listening on port " + std::to_string(p.serverPort)
                              : std::string("stopped");
  screen += "\nOllama        ";
  screen += p.isOllamaAvailable ? "ready, " + p.activeModel : std::string("not reachable");
  screen += "\nDevices       " + std::to_string(registry.devices().size()) + " paired";
  if (controlPort_ != 0) {
    screen += "\nControl API   http://127.0.0.1:" + std::to_string(controlPort_);
  }
  if (const auto issue = app->setupIssue()) {
    screen += "\nNext step     " + issue->title;
    if (issue->copyCommand) screen += " (or run: " + *issue->copyCommand + ")";
  }
  screen += "\n\n" + p.lastEvent + "\n";
  // Drawn over the previous frame line by line, each line cleared to its end, so the view
  // updates in place without flicker.
  std::string frame = "\x1b[H";
  for (const char c : screen) {
    if (c == '\n') frame += "\x1b[K";
    frame.push_back(c);
  }
  frame += "\x1b[J";
  std::fputs(frame.c_str(), out_);
  std::fflush(out_);
}

}  // namespace orin
