#include "tests/support/ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/Eventually.h"

extern char** environ;

namespace orin::test {

ChildProcess::ChildProcess(std::vector<std::string> argv,
                           std::map<std::string, std::string> environment) {
  std::vector<std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string variable = *entry;
    if (!environment.contains(variable.substr(0, variable.find('=')))) {
      variables.push_back(variable);
    }
  }
  for (const auto& [name, value] : environment) {
    if (!value.empty()) variables.push_back(name + "=" + value);
  }
  std::vector<char*> envp;
  for (auto& variable : variables)
    envp.push_back(variable.data());
  envp.push_back(nullptr);
  std::vector<char*> args;
  for (auto& arg : argv)
    args.push_back(arg.data());
  args.push_back(nullptr);

  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fds[1], STDERR_FILENO);
  const int status = ::posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  if (status != 0) {
    ::close(fds[0]);
    throw std::runtime_error("could not start " + argv[0]);
  }
  output_ = fds[0];
  ::fcntl(output_, F_SETFL, ::fcntl(output_, F_GETFL) | O_NONBLOCK);
}

ChildProcess::~ChildProcess() {
  if (!status_) {
    ::kill(pid_, SIGKILL);
    int ignored = 0;
    ::waitpid(pid_, &ignored, 0);
  }
  ::close(output_);
}

bool ChildProcess::pump(std::chrono::milliseconds timeout) {
  pollfd entry{output_, POLLIN, 0};
  if (::poll(&entry, 1, static_cast<int>(timeout.count())) <= 0) return true;
  char buffer[4096];
  while (true) {
    const ssize_t n = ::read(output_, buffer, sizeof buffer);
    if (n > 0) {
      partial_.append(buffer, static_cast<std::size_t>(n));
      std::size_t end = 0;
      while ((end = partial_.find('\n')) != std::string::npos) {
        lines_.push_back(partial_.substr(0, end));
        partial_.erase(0, end + 1);
      }
      continue;
    }
    if (n == 0) return false;
    return errno == EAGAIN || errno == EINTR;
  }
}

std::optional<std::string> ChildProcess::waitForLine(const std::string& text,
                                                     std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  std::size_t checked = 0;
  while (true) {
    for (; checked < lines_.size(); ++checked) {
      if (lines_[checked].find(text) != std::string::npos) return lines_[checked];
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left <= 0ms) return std::nullopt;
    if (!pump(left) && checked == lines_.size()) return std::nullopt;
  }
}

int ChildProcess::count(const std::string& text) {
  int found = 0;
  for (const auto& line : lines())
    found += line.find(text) != std::string::npos ? 1 : 0;
  return found;
}

const std::vector<std::string>& ChildProcess::lines() {
  pump(0ms);
  return lines_;
}

std::string ChildProcess::output() {
  std::string text;
  for (const auto& line : lines())
    text += line + "\n";
  return text + partial_;
}

std::optional<int> ChildProcess::waitForExit(std::chrono::milliseconds timeout) {
  testing_support::eventually(
      [&] {
        pump(0ms);
        int status = 0;
        if (!status_ && ::waitpid(pid_, &status, WNOHANG) == pid_) {
          status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return status_.has_value();
      },
      timeout);
  pump(0ms);
  return status_;
}

PrivateBus::PrivateBus() {
  const auto config = folder_.path() / "bus.conf";
  const std::string requested = "unix:path=" + (folder_.path() / "bus").string();
  std::ofstream(config)
      << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
         "<busconfig>\n"
         "  <type>session</type>\n"
         "  <listen>"
      << requested
      << "</listen>\n"
         "  <auth>EXTERNAL</auth>\n"
         "  <policy context=\"default\">\n"
         "    <allow send_destination=\"*\" eavesdrop=\"true\"/>\n"
         "    <allow eavesdrop=\"true\"/>\n"
         "    <allow own=\"*\"/>\n"
         "  </policy>\n"
         "</busconfig>\n";
  daemon_.emplace(std::vector<std::string>{"dbus-daemon", "--config-file=" + config.string(),
                                           "--address=" + requested, "--nofork", "--nopidfile",
                                           "--print-address=1"});
  const auto printed = daemon_->waitForLine("unix:path=");
  if (!printed) throw std::runtime_error("dbus-daemon did not start: " + daemon_->output());
  address_ = *printed;
}

namespace {

void assign(const std::string& name, const std::optional<std::string>& value) {
  if (value) {
    ::setenv(name.c_str(), value->c_str(), 1);
  } else {
    ::unsetenv(name.c_str());
  }
}

}  // namespace

ScopedEnvironment::ScopedEnvironment(
    const std::map<std::string, std::optional<std::string>>& values) {
  for (const auto& [name, value] : values) {
    const char* now = std::getenv(name.c_str());
    saved_[name] = now != nullptr ? std::optional<std::string>(now) : std::nullopt;
    assign(name, value);
  }
}

ScopedEnvironment::~ScopedEnvironment() {
  for (const auto& [name, value] : saved_)
    assign(name, value);
}

}  // namespace orin::test
