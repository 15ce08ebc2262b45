#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "OrinLinkShared/Error.h"

namespace orin {

// The desktop facilities the application state uses. Each is a no-op where the machine lacks it;
// `availability()` names what is missing so that the diagnostics can say so. All calls are made on
// the main loop and must not block it for long.

class SleepPreventionError : public Error {
 public:
  static SleepPreventionError assertionFailed(std::int32_t status);
  std::int32_t status() const { return status_; }

 private:
  SleepPreventionError(std::string text, std::int32_t status)
      : Error(std::move(text)), status_(status) {}
  std::int32_t status_;
};

// Keeps the machine from idle system sleep (never from blanking the display). Idempotent; the
// lock is released on disable and on destruction.
class SleepPrevention {
 public:
  virtual ~SleepPrevention() = default;
  // Throws SleepPreventionError when the system refuses.
  virtual void setEnabled(bool enabled) = 0;
  virtual bool isHeld() const = 0;
};

// Start at login. Applied every time, whatever is registered now; throws Error with the
// platform's description.
class LoginItem {
 public:
  virtual ~LoginItem() = default;
  virtual void setEnabled(bool enabled) = 0;
};

class NotificationCenter {
 public:
  virtual ~NotificationCenter() = default;
  // False when notifications cannot be shown at all (no session bus or no server).
  virtual bool isAvailable() const = 0;
  virtual void requestAuthorization() = 0;
  virtual void post(const std::string& title, const std::string& body) = 0;
};

class SoundPlayer {
 public:
  virtual ~SoundPlayer() = default;
  // The pairing chime; silent when no sound can be played.
  virtual void playPairingSound() = 0;
};

// Where the badge count and the windowed presence show (a tray item where a tray host exists).
class PresenceIndicator {
 public:
  virtual ~PresenceIndicator() = default;
  // Nothing removes the badge.
  virtual void setBadge(std::optional<std::string> text) = 0;
  virtual void setShowsWindowedPresence(bool windowed) = 0;
};

// Opens the control panel in the user's browser.
class ControlPanelOpener {
 public:
  virtual ~ControlPanelOpener() = default;
  virtual void openControlPanel() = 0;
};

// One facility's state, for the diagnostic report.
struct FacilityAvailability {
  bool sleepPrevention = false;
  bool loginItem = false;
  bool notifications = false;
  bool sound = false;
  bool presence = false;
  bool graphicalSession = false;
};

struct DesktopIntegration {
  std::unique_ptr<SleepPrevention> sleepPrevention;
  std::unique_ptr<LoginItem> loginItem;
  std::unique_ptr<NotificationCenter> notifications;
  std::unique_ptr<SoundPlayer> sound;
  std::unique_ptr<PresenceIndicator> presence;
  std::unique_ptr<ControlPanelOpener> panelOpener;
  FacilityAvailability availability;
};

}  // namespace orin
