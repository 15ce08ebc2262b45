#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <variant>

#include "OrinLink/system/DesktopIntegration.h"

namespace orin {

// What the alert says when the other edition already serves the devices.
struct OtherEditionAlert {
  static constexpr std::string_view message = "Another edition of Orin Link is open";
  static constexpr std::string_view informativeText =
      "Quit the other Orin Link edition first, then open this one. Only one can serve your "
      "devices at a time. When switching editions, pair your devices again.";
  static constexpr std::string_view button = "Quit This Edition";
};

// Where a running copy can be asked to open its control panel.
struct RunningCopy {
  pid_t pid = 0;
  std::optional<std::uint16_t> controlPort;
  std::filesystem::path secretFile;
};

// One copy per user and edition: each edition holds an exclusive flock on
// "<lock folder>/<its id>.lock" while it runs, and the lock file tells a later start where the
// running copy's control API listens. The lock goes with the process, however it ends.
class EditionGuard {
 public:
  enum class Verdict { proceed, otherEditionRunning, alreadyRunning };

  // $XDG_RUNTIME_DIR, else /tmp/orinlink-<uid> made private to this user.
  static std::filesystem::path defaultLockFolder();

  // Takes this edition's lock, then looks for the other's. Throws Error when the folder cannot
  // hold a lock.
  explicit EditionGuard(std::filesystem::path lockFolder = defaultLockFolder());
  ~EditionGuard();
  EditionGuard(const EditionGuard&) = delete;
  EditionGuard& operator=(const EditionGuard&) = delete;

  Verdict verdict() const { return verdict_; }
  std::filesystem::path lockFile() const;

  // With `proceed`: what a later start needs to reach us.
  void recordControlAPI(std::uint16_t port, const std::filesystem::path& secretFile);
  // With `alreadyRunning`: what the running copy recorded, once it has a control port, waiting
  // up to `patience` for a copy that is still starting.
  std::optional<RunningCopy> runningCopy(std::chrono::milliseconds patience) const;
  // What this edition's running copy recorded, read without taking the lock, for commands that
  // talk to it; nothing when no copy runs.
  static std::optional<RunningCopy> recordedCopy(const std::filesystem::path& lockFolder);

 private:
  bool writeRecord(const std::string& record);

  std::filesystem::path folder_;
  int fd_ = -1;
  Verdict verdict_ = Verdict::proceed;
};

// The first step of a start. With the other edition running: the alert's texts on stderr and as
// a notification, and status 1. With this edition running: status 0, after asking the running
// copy to open its control panel when `openPanel`. Otherwise the guard, to hold for the whole run
// (null when the lock folder is unusable, which is reported and does not stop the start).
std::variant<std::unique_ptr<EditionGuard>, int> claimEdition(bool openPanel);

}  // namespace orin
