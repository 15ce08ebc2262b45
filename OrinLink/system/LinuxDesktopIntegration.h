#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "OrinLink/system/DesktopIntegration.h"
#include "OrinLink/system/SdBus.h"

struct ca_context;

namespace orin {

// Names the lock files, the autostart entry, the notifications and the icon.
inline constexpr std::string_view applicationID = "app.orinlink.OrinLink";

// A "sleep" inhibitor from logind (mode "block", so suspend waits for us; never "idle", so the
// display may still blank), and the desktop session's own suspend inhibitor through the portal
// when a portal runs, since session managers suspend on idle without asking logind first.
//
// The status of a refusal is the negative errno sd-bus reports: the connection's own failure
// (-2 when there is no system bus), or the D-Bus error mapped by sd-bus (-13 AccessDenied,
// -113 ServiceUnknown, -110 NoReply; -5 for names it does not know).
class LogindSleepPrevention final : public SleepPrevention {
 public:
  static constexpr std::string_view who = "Orin Link";
  static constexpr std::string_view why = "Keep this computer available for Orin Link requests";

  LogindSleepPrevention() = default;
  ~LogindSleepPrevention() override;
  LogindSleepPrevention(const LogindSleepPrevention&) = delete;
  LogindSleepPrevention& operator=(const LogindSleepPrevention&) = delete;

  void setEnabled(bool enabled) override;
  bool isHeld() const override { return inhibitor_ >= 0; }
  bool holdsSessionInhibitor() const { return !portalRequest_.empty(); }

  // Whether logind answers on the system bus, for the diagnostics.
  static bool available();

 private:
  void takeSessionInhibitor();
  void release();

  int inhibitor_ = -1;
  // The portal drops an inhibitor when its owner's connection closes, so the connection lives
  // as long as the inhibitor.
  sdbus::Bus sessionBus_;
  std::string portalRequest_;
};

// The XDG autostart entry, written or removed at every call.
class XdgAutostartLoginItem final : public LoginItem {
 public:
  // $XDG_CONFIG_HOME/autostart or ~/.config/autostart.
  static std::filesystem::path defaultFolder();
  // The entry's contents for `executable`, quoted as desktop entries need.
  static std::string entry(const std::filesystem::path& executable);

  explicit XdgAutostartLoginItem(std::filesystem::path folder = defaultFolder());
  // Throws Error with the system's description.
  void setEnabled(bool enabled) override;
  std::filesystem::path entryPath() const;

 private:
  std::filesystem::path folder_;
};

// Desktop notifications over the session bus. Notify is sent without waiting for a reply, so a
// slow notification server never holds up the caller.
class DBusNotificationCenter final : public NotificationCenter {
 public:
  DBusNotificationCenter() = default;
  bool isAvailable() const override;
  // Desktop notifications need no permission.
  void requestAuthorization() override {}
  void post(const std::string& title, const std::string& body) override;

 private:
  // A bus is opened again after a failure: a session bus may start after we do.
  mutable sdbus::Bus bus_;
  mutable bool available_ = false;
  mutable std::chrono::steady_clock::time_point checkedAt_{};
};

// The sound theme's "complete" event; silent when no sound can be played, or when `enabled` is
// false.
class CanberraSoundPlayer final : public SoundPlayer {
 public:
  explicit CanberraSoundPlayer(bool enabled = true);
  ~CanberraSoundPlayer() override;
  CanberraSoundPlayer(const CanberraSoundPlayer&) = delete;
  CanberraSoundPlayer& operator=(const CanberraSoundPlayer&) = delete;

  void playPairingSound() override;
  bool isAvailable() const { return context_ != nullptr; }

 private:
  ca_context* context_ = nullptr;
};

// Where the control panel opens, with what starts its session. It is known once the control API
// listens; an opening asked for before then happens when it arrives. Main loop only.
class ControlPanelAddress {
 public:
  using Open = std::function<void(const std::string& url)>;
  void set(std::string url);
  // Now, or once the address is set; requests made meanwhile come to one opening.
  void whenKnown(Open open);

 private:
  std::string url_;
  Open waiting_;
};

// Opens the control panel in the browser, detached, when there is a display to show it on.
class XdgControlPanelOpener final : public ControlPanelOpener {
 public:
  // With `skipFirst` the first request, the launch's own, is left out. `open` defaults to
  // xdg-open.
  XdgControlPanelOpener(std::shared_ptr<ControlPanelAddress> address, bool skipFirst = false,
                        ControlPanelAddress::Open open = {});
  void openControlPanel() override;

 private:
  std::shared_ptr<ControlPanelAddress> address_;
  bool skipNext_;
  ControlPanelAddress::Open open_;
};

class NullPresenceIndicator final : public PresenceIndicator {
 public:
  void setBadge(std::optional<std::string>) override {}
  void setShowsWindowedPresence(bool) override {}
};

// DISPLAY or WAYLAND_DISPLAY is set.
bool hasGraphicalSession();

struct LinuxDesktopOptions {
  std::shared_ptr<ControlPanelAddress> controlPanel = std::make_shared<ControlPanelAddress>();
  // False when started at login: the panel does not open by itself then, only on a reopen.
  bool openPanelAtLaunch = true;
};

// Every facility, probed once for the diagnostics. Talks to the buses briefly: call it before
// the main loop runs.
DesktopIntegration makeLinuxDesktopIntegration(LinuxDesktopOptions options);

}  // namespace orin
