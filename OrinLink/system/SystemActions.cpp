#include "OrinLink/system/SystemActions.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <spawn.h>
#include <string_view>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace orin {
namespace {

std::vector<char*> argvPointers(const std::vector<std::string>& argv) {
  std::vector<char*> pointers;
  pointers.reserve(argv.size() + 1);
  for (const auto& arg : argv)
    pointers.push_back(const_cast<char*>(arg.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// Spawns with stdin from /dev/null, stdout to `stdoutFd` (or /dev/null) and stderr to
// `stderrFd` (or /dev/null). With `detach`, the child starts its own session so it outlives us and
// our terminal.
std::optional<pid_t> spawn(const std::vector<std::string>& argv, int stdoutFd, bool detach,
                           bool searchPath, int stderrFd = -1) {
  if (argv.empty()) return std::nullopt;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (stdoutFd >= 0) {
    posix_spawn_file_actions_adddup2(&actions, stdoutFd, STDOUT_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  }
  if (stderrFd >= 0) {
    posix_spawn_file_actions_adddup2(&actions, stderrFd, STDERR_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  }
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  if (detach) posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  auto pointers = argvPointers(argv);
  pid_t pid = 0;
  const int status =
      searchPath ? posix_spawnp(&pid, pointers[0], &actions, &attributes, pointers.data(), environ)
                 : posix_spawn(&pid, pointers[0], &actions, &attributes, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (status != 0) return std::nullopt;
  return pid;
}

int reap(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

std::string readAll(int fd) {
  std::string output;
  char buffer[4096];
  while (true) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      output.append(buffer, static_cast<std::size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  return output;
}

}  // namespace

bool PosixSystemActions::fileExists(const std::filesystem::path& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

std::optional<std::filesystem::path> PosixSystemActions::findOnPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::string_view rest = path != nullptr ? path : "/usr/local/bin:/usr/bin:/bin";
  while (!rest.empty()) {
    const std::size_t colon = rest.find(':');
    const std::string_view folder = rest.substr(0, colon);
    if (!folder.empty()) {
      const std::filesystem::path candidate = std::filesystem::path(folder) / name;
      if (::access(candidate.c_str(), X_OK) == 0) return candidate;
    }
    if (colon == std::string_view::npos) break;
    rest.remove_prefix(colon + 1);
  }
  return std::nullopt;
}

bool PosixSystemActions::launchDetached(const std::vector<std::string>& argv) {
  const auto pid = spawn(argv, -1, true, argv.empty() || argv[0].find('/') == std::string::npos);
  if (!pid) return false;
  // The child stays ours to reap; a small waiting thread keeps it from lingering as a zombie.
  std::thread([child = *pid] { reap(child); }).detach();
  return true;
}

std::optional<std::string> PosixSystemActions::runCapturingOutput(
    const std::vector<std::string>& argv) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) return std::nullopt;
  const auto pid = spawn(argv, pipeFds[1], false, false);
  ::close(pipeFds[1]);
  if (!pid) {
    ::close(pipeFds[0]);
    return std::nullopt;
  }
  std::string output = readAll(pipeFds[0]);
  ::close(pipeFds[0]);
  reap(*pid);
  return output;
}

std::optional<SystemActions::Outcome> PosixSystemActions::run(
    const std::vector<std::string>& argv) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) return std::nullopt;
  const auto pid = spawn(argv, pipeFds[1], false, true, pipeFds[1]);
  ::close(pipeFds[1]);
  if (!pid) {
    ::close(pipeFds[0]);
    return std::nullopt;
  }
  Outcome outcome;
  outcome.output = readAll(pipeFds[0]);
  ::close(pipeFds[0]);
  const int status = reap(*pid);
  outcome.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return outcome;
}

void PosixSystemActions::openURL(const std::string& url) {
  launchDetached({"xdg-open", url});
}

std::uint64_t PosixSystemActions::physicalMemoryBytes() {
  const long pages = ::sysconf(_SC_PHYS_PAGES);
  const long pageSize = ::sysconf(_SC_PAGE_SIZE);
  if (pages <= 0 || pageSize <= 0) return 0;
  return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageSize);
}

std::optional<std::string> PosixSystemActions::computerName() {
  if (std::ifstream info("/etc/machine-info"); info) {
    std::string line;
    while (std::getline(info, line)) {
      constexpr std::string_view key = "PRETTY_HOSTNAME=";
      if (!line.starts_with(key)) continue;
      std::string value = line.substr(key.size());
      if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
          value.back() == value.front()) {
        value = value.substr(1, value.size() - 2);
      }
      if (!value.empty()) return value;
    }
  }
  char host[256] = {};
  if (::gethostname(host, sizeof host - 1) == 0 && host[0] != '\0') return std::string(host);
  return std::nullopt;
}

}  // namespace orin
