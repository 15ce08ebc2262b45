#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/any_io_executor.hpp>

#include "OrinLink/system/DesktopIntegration.h"

namespace orin {

class AppState;

// What the tray item shows.
struct TrayState {
  std::string mood = "dormant";  // dormant, idle, thinking or streaming: the orb's colours
  std::string presence;          // the tooltip
  bool serverRunning = false;
  std::optional<bool> streamingEnabled;  // nothing where streaming is not available
  bool operator==(const TrayState&) const = default;
};

// What its menu does. Each runs on the main loop after the bus callback has returned, so an
// action may end the tray item itself.
struct TrayActions {
  std::function<void()> open;
  std::function<void()> newCode;
  std::function<void()> toggleServer;
  std::function<void()> toggleStreaming;
  std::function<void()> quit;
};

// A StatusNotifierItem with a com.canonical.dbusmenu menu on the session bus: the orb as icon,
// the presence sentence as tooltip, the badge as a dot on the orb and in the tooltip's title.
// Without a session bus it does nothing; without a tray host it waits, and registers as soon as
// one appears. It lives on the main loop and never blocks it on the bus.
class TrayItem final : public PresenceIndicator {
 public:
  static constexpr std::string_view itemPath = "/StatusNotifierItem";
  static constexpr std::string_view menuPath = "/MenuBar";

  // An empty address means the user's session bus.
  static std::unique_ptr<TrayItem> make(boost::asio::any_io_executor main,
                                        const std::string& busAddress = {});
  ~TrayItem() override;
  TrayItem(const TrayItem&) = delete;
  TrayItem& operator=(const TrayItem&) = delete;

  void setActions(TrayActions actions);
  void update(const TrayState& state);
  void setBadge(std::optional<std::string> text) override;
  // The tray item stays either way: it is the presence that remains without a window.
  void setShowsWindowedPresence(bool) override {}

  bool hasBus() const;
  // The bus name the item registered under; empty until a tray host has accepted it.
  std::string registeredName() const;

  // Shows the application's state and gives the menu its operations. The item holds the
  // application weakly: the application owns it.
  void follow(const std::shared_ptr<AppState>& app, std::function<void()> openPanel,
              std::function<void()> quit);

  struct Impl;

 private:
  explicit TrayItem(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> impl_;
};

// The orb in a mood as the tray reads icons: size × size pixels, ARGB32 in network byte order,
// with a dot in its corner when something is busy.
std::vector<std::uint8_t> orbIcon(std::string_view mood, int size, bool badge);

}  // namespace orin
