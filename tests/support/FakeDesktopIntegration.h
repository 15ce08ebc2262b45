#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "OrinLink/system/DesktopIntegration.h"

namespace orin::test {

// Records what the application asked of the desktop. Owned by the test; the application gets
// forwarding handles so that the test can inspect after the application is gone.
struct DesktopRecord {
  bool sleepHeld = false;
  int sleepLocksTaken = 0;
  std::optional<std::int32_t> refuseSleepWith;
  std::vector<bool> loginItemCalls;
  std::optional<std::string> refuseLoginItemWith;
  int authorizationRequests = 0;
  std::vector<std::pair<std::string, std::string>> notifications;
  bool notificationsAvailable = true;
  int soundsPlayed = 0;
  std::vector<std::optional<std::string>> badges;
  std::optional<bool> windowedPresence;
  int panelOpens = 0;
};

inline DesktopIntegration makeFakeDesktop(std::shared_ptr<DesktopRecord> record) {
  struct Sleep final : SleepPrevention {
    std::shared_ptr<DesktopRecord> r;
    void setEnabled(bool enabled) override {
      if (enabled && !r->sleepHeld) {
        if (r->refuseSleepWith) throw SleepPreventionError::assertionFailed(*r->refuseSleepWith);
        r->sleepHeld = true;
        ++r->sleepLocksTaken;
      } else if (!enabled) {
        r->sleepHeld = false;
      }
    }
    bool isHeld() const override { return r->sleepHeld; }
  };
  struct Login final : LoginItem {
    std::shared_ptr<DesktopRecord> r;
    void setEnabled(bool enabled) override {
      r->loginItemCalls.push_back(enabled);
      if (r->refuseLoginItemWith) throw Error(*r->refuseLoginItemWith);
    }
  };
  struct Notes final : NotificationCenter {
    std::shared_ptr<DesktopRecord> r;
    bool isAvailable() const override { return r->notificationsAvailable; }
    void requestAuthorization() override { ++r->authorizationRequests; }
    void post(const std::string& title, const std::string& body) override {
      r->notifications.emplace_back(title, body);
    }
  };
  struct Sound final : SoundPlayer {
    std::shared_ptr<DesktopRecord> r;
    void playPairingSound() override { ++r->soundsPlayed; }
  };
  struct Presence final : PresenceIndicator {
    std::shared_ptr<DesktopRecord> r;
    void setBadge(std::optional<std::string> text) override {
      r->badges.push_back(std::move(text));
    }
    void setShowsWindowedPresence(bool windowed) override { r->windowedPresence = windowed; }
  };
  struct Opener final : ControlPanelOpener {
    std::shared_ptr<DesktopRecord> r;
    void openControlPanel() override { ++r->panelOpens; }
  };
  // Each fake holds the shared record.
  const auto fake = [&record]<class Fake>(Fake*) {
    auto made = std::make_unique<Fake>();
    made->r = record;
    return made;
  };
  DesktopIntegration desktop;
  desktop.sleepPrevention = fake(static_cast<Sleep*>(nullptr));
  desktop.loginItem = fake(static_cast<Login*>(nullptr));
  desktop.notifications = fake(static_cast<Notes*>(nullptr));
  desktop.sound = fake(static_cast<Sound*>(nullptr));
  desktop.presence = fake(static_cast<Presence*>(nullptr));
  desktop.panelOpener = fake(static_cast<Opener*>(nullptr));
  desktop.availability = {true, true, true, true, true, true};
  return desktop;
}

}  // namespace orin::test
