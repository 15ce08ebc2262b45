#include "OrinLink/system/EditionGuard.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "OrinLink/common/AtomicFile.h"
#include "OrinLink/common/ErrorDescription.h"
#include "OrinLink/controlclient/ControlClient.h"
#include "OrinLink/system/LinuxDesktopIntegration.h"

namespace orin {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::string systemText(int error) {
  return std::strerror(error);
}

std::string lockName(std::string_view id) {
  return std::string(id) + ".lock";
}

std::optional<RunningCopy> readRecord(const fs::path& lockFile) {
  const auto text = readFile(lockFile);
  const auto record = text ? nlohmann::json::parse(*text, nullptr, false) : nlohmann::json();
  if (!record.is_object() || !record.contains("pid") || !record["pid"].is_number_integer()) {
    return std::nullopt;
  }
  RunningCopy copy{record["pid"].get<pid_t>(), std::nullopt, {}};
  if (record.contains("controlPort") && record["controlPort"].is_number_unsigned() &&
      record.contains("secretFile") && record["secretFile"].is_string()) {
    copy.controlPort = record["controlPort"].get<std::uint16_t>();
    copy.secretFile = record["secretFile"].get<std::string>();
  }
  return copy;
}

}  // namespace

fs::path EditionGuard::defaultLockFolder() {
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime != nullptr && *runtime != 0) {
    return runtime;
  }
  // /tmp is shared with every user, so the folder must be ours alone before a lock in it counts.
  const fs::path folder = "/tmp/orinlink-" + std::to_string(::getuid());
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    throw Error("Could not create " + folder.string() + ": " + systemText(errno));
  }
  struct stat info {};
  if (::lstat(folder.c_str(), &info) != 0) {
    throw Error("Could not examine " + folder.string() + ": " + systemText(errno));
  }
  if (!S_ISDIR(info.st_mode) || info.st_uid != ::getuid() || (info.st_mode & 077) != 0) {
    throw Error(folder.string() + " is not a folder private to this user");
  }
  return folder;
}

EditionGuard::EditionGuard(fs::path lockFolder) : folder_(std::move(lockFolder)) {
  const fs::path own = lockFile();
  fd_ = ::open(own.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd_ < 0) throw Error("Could not open " + own.string() + ": " + systemText(errno));
  if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) {
      const int error = errno;
      ::close(std::exchange(fd_, -1));
      throw Error("Could not lock " + own.string() + ": " + systemText(error));
    }
    verdict_ = Verdict::alreadyRunning;
    return;
  }
  // Without the record the lock still holds; a later start just cannot reach us.
  writeRecord(nlohmann::json{{"pid", ::getpid()}}.dump());
  // A shared lock is enough to see an exclusive one, and never blocks the other edition's
  // own check of its lock.
  const fs::path other = folder_ / lockName(std::string(applicationID) + ".store");
  const int otherFd = ::open(other.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  if (otherFd >= 0) {
    if (::flock(otherFd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
      verdict_ = Verdict::otherEditionRunning;
    }
    ::close(otherFd);
  }
}

EditionGuard::~EditionGuard() {
  if (fd_ >= 0) ::close(fd_);
}

fs::path EditionGuard::lockFile() const {
  return folder_ / lockName(applicationID);
}

void EditionGuard::recordControlAPI(std::uint16_t port, const fs::path& secretFile) {
  if (verdict_ != Verdict::proceed) return;
  writeRecord(nlohmann::json{{"pid", ::getpid()}, {"controlPort", port}, {"secretFile", secretFile}}
                  .dump());
}

// In place: replacing the file would leave the lock on a name nobody opens. A reader retries a
// record it catches half-written.
bool EditionGuard::writeRecord(const std::string& record) {
  return ::pwrite(fd_, record.data(), record.size(), 0) == static_cast<ssize_t>(record.size()) &&
         ::ftruncate(fd_, static_cast<off_t>(record.size())) == 0;
}

std::optional<RunningCopy> EditionGuard::runningCopy(std::chrono::milliseconds patience) const {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (true) {
    auto found = readRecord(lockFile());
    if (found && found->controlPort) return found;
    if (std::chrono::steady_clock::now() >= deadline) return found;
    // A copy that is starting records its port within moments.
    std::this_thread::sleep_for(50ms);
  }
}

std::optional<RunningCopy> EditionGuard::recordedCopy(const fs::path& lockFolder) {
  auto copy = readRecord(lockFolder / lockName(applicationID));
  // The file outlives the copy that wrote it.
  if (!copy || copy->pid <= 0 || (::kill(copy->pid, 0) != 0 && errno != EPERM)) {
    return std::nullopt;
  }
  return copy;
}

namespace {

int reopen(const EditionGuard& guard) {
  const auto copy = guard.runningCopy(5s);
  if (!copy || !copy->controlPort) {
    std::fprintf(stderr,
                 "orinlink: Orin Link is already running, but its control API does not listen, "
                 "so its control panel cannot be opened from here.\n");
    return 1;
  }
  try {
    auto secret = readControlSecret(copy->secretFile);
    if (!secret) throw Error("Could not read " + copy->secretFile.string() + ".");
    ControlClient(*copy->controlPort, std::move(*secret)).post("/api/panel/open");
  } catch (...) {
    std::fprintf(stderr,
                 "orinlink: Orin Link is already running (process %d), but did not open its "
                 "control panel: %s\n",
                 static_cast<int>(copy->pid), describe(std::current_exception()).c_str());
    return 1;
  }
  std::printf("Orin Link is already running; its control panel opens.\n");
  return 0;
}

}  // namespace

std::variant<std::unique_ptr<EditionGuard>, int> claimEdition(bool openPanel) {
  std::unique_ptr<EditionGuard> guard;
  try {
    guard = std::make_unique<EditionGuard>();
  } catch (...) {
    std::fprintf(stderr, "orinlink: %s; starting without the check for a running copy.\n",
                 describe(std::current_exception()).c_str());
    return std::unique_ptr<EditionGuard>();
  }
  switch (guard->verdict()) {
    case EditionGuard::Verdict::proceed:
      break;
    case EditionGuard::Verdict::otherEditionRunning: {
      const std::string message(OtherEditionAlert::message);
      const std::string text(OtherEditionAlert::informativeText);
      std::fprintf(stderr, "%s\n\n%s\n", message.c_str(), text.c_str());
      DBusNotificationCenter notifications;
      notifications.post(message, text);
      return 1;
    }
    case EditionGuard::Verdict::alreadyRunning:
      if (openPanel) return reopen(*guard);
      std::printf("Orin Link is already running.\n");
      return 0;
  }
  return guard;
}

}  // namespace orin
