#include "OrinLink/screenstream/DisplayWatchdog.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace orin::screen {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view readyLine = "ready\n";
constexpr std::string_view releaseLine = "release";
constexpr auto startLimit = std::chrono::seconds(5);
constexpr auto exitLimit = std::chrono::seconds(2);

int remainingMilliseconds(Clock::time_point deadline) {
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return static_cast<int>(std::max<std::int64_t>(left.count(), 0));
}

// Waits for the process to end, at most `limit`; reaps it when it did.
void reap(pid_t pid, std::chrono::milliseconds limit) {
  int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (pidfd >= 0) {
    pollfd ended{pidfd, POLLIN, 0};
    auto deadline = Clock::now() + limit;
    while (poll(&ended, 1, remainingMilliseconds(deadline)) < 0 && errno == EINTR) {
    }
    close(pidfd);
    waitpid(pid, nullptr, WNOHANG);
  } else {
    waitpid(pid, nullptr, 0);
  }
}

bool writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    ssize_t n = ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace

std::unique_ptr<DisplayWatchdog> DisplayWatchdog::start(const std::string& executable,
                                                        const std::string& xDisplay) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return nullptr;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[1], 3);
  // Whatever else this process has open (listening sockets above all) must not live on in it.
  posix_spawn_file_actions_addclosefrom_np(&actions, 4);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  sigset_t all;
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(
      &attributes,
      static_cast<short>(POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
  std::vector<char*> argv{const_cast<char*>(executable.c_str()),
                          const_cast<char*>(xDisplay.c_str()), nullptr};
  pid_t pid = -1;
  int spawned = posix_spawn(&pid, executable.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  close(ends[1]);
  if (spawned != 0) {
    close(ends[0]);
    return nullptr;
  }
  std::unique_ptr<DisplayWatchdog> watchdog(new DisplayWatchdog(pid, ends[0]));

  std::string heard;
  auto deadline = Clock::now() + startLimit;
  while (heard.size() < readyLine.size()) {
    pollfd reader{ends[0], POLLIN, 0};
    int ready = poll(&reader, 1, remainingMilliseconds(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return nullptr;
    char buffer[16];
    ssize_t n = read(ends[0], buffer, readyLine.size() - heard.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return nullptr;
    heard.append(buffer, static_cast<std::size_t>(n));
  }
  if (heard != readyLine) return nullptr;
  return watchdog;
}

DisplayWatchdog::~DisplayWatchdog() {
  finish(false);
}

bool DisplayWatchdog::send(const std::string& line) {
  return socket_ >= 0 && writeAll(socket_, line + "\n");
}

bool DisplayWatchdog::update(const VirtualDisplayRecord& record) {
  return send(encodeRecord(record));
}

void DisplayWatchdog::release() {
  finish(true);
}

void DisplayWatchdog::finish(bool released) {
  if (socket_ < 0) return;
  if (released) send(std::string(releaseLine));
  close(socket_);
  socket_ = -1;
  reap(pid_, exitLimit);
}

std::optional<std::string> defaultWatchdogPath() {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return std::nullopt;
  std::string path(self, static_cast<std::size_t>(n));
  path = path.substr(0, path.rfind('/') + 1) + "orinlink-display-watchdog";
  if (access(path.c_str(), X_OK) != 0) return std::nullopt;
  return path;
}

int runDisplayWatchdog(int fd,
                       const std::function<std::unique_ptr<DisplayConfigurator>()>& connect) {
  try {
    connect();
  } catch (const VirtualDisplayError&) {
    return 1;
  }
  if (!writeAll(fd, readyLine)) return 1;

  std::optional<VirtualDisplayRecord> last;
  std::string pending;
  char buffer[4096];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    pending.append(buffer, static_cast<std::size_t>(n));
    std::size_t end;
    bool released = false;
    while ((end = pending.find('\n')) != std::string::npos) {
      std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (line == releaseLine) {
        released = true;
        last.reset();
      } else if (auto record = decodeRecord(line)) {
        last = std::move(record);
      }
    }
    if (released) return 0;
  }
  if (!last) return 0;
  try {
    auto configurator = connect();
    return restoreUserDesktop(*configurator, *last) ? 1 : 0;
  } catch (const VirtualDisplayError&) {
    return 1;
  }
}

}  // namespace orin::screen
