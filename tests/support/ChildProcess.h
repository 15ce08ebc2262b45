#pragma once

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/core/TemporaryDirectory.h"
#include "tests/support/Eventually.h"
#include "tests/support/ScopedEnvironment.h"

namespace orin::test {

using namespace std::chrono_literals;

// A child process whose standard output and error the test reads line by line. They go to
// memory, so a child that writes a lot never waits for the test to read them. It is sent
// SIGTERM when the test dies without running destructors. Header-only, for the benchmarks too.
class ChildProcess {
 public:
  // `environment` is added to ours; an empty value removes the variable.
  explicit ChildProcess(std::vector<std::string> argv,
                        const std::map<std::string, std::string>& environment = {}) {
    std::vector<std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
      const std::string variable = *entry;
      if (!environment.contains(variable.substr(0, variable.find('='))))
        variables.push_back(variable);
    }
    for (const auto& [name, value] : environment) {
      if (!value.empty()) variables.push_back(name + "=" + value);
    }
    const auto pointers = [](std::vector<std::string>& words) {
      std::vector<char*> list;
      for (auto& word : words)
        list.push_back(word.data());
      list.push_back(nullptr);
      return list;
    };
    const std::vector<char*> args = pointers(argv);
    const std::vector<char*> envp = pointers(variables);
    output_ = ::memfd_create("child-output", MFD_CLOEXEC);
    const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const pid_t parent = ::getpid();
    pid_ = output_ < 0 || input < 0 ? -1 : ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGTERM);
      if (::getppid() != parent) ::_exit(127);
      ::dup2(input, STDIN_FILENO);
      ::dup2(output_, STDOUT_FILENO);
      ::dup2(output_, STDERR_FILENO);
      ::execvpe(args[0], args.data(), envp.data());
      static constexpr char failed[] = "exec failed\n";
      [[maybe_unused]] const auto written = ::write(STDERR_FILENO, failed, sizeof failed - 1);
      ::_exit(127);
    }
    if (input >= 0) ::close(input);
    if (pid_ < 0) {
      if (output_ >= 0) ::close(output_);
      throw std::runtime_error("could not start " + argv[0]);
    }
  }
  ~ChildProcess() {
    if (!status_) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(output_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The first line (written so far or before the time-out) that contains `text`; nothing once
  // the child has ended without writing one.
  std::optional<std::string> waitForLine(const std::string& text,
                                         std::chrono::milliseconds timeout = 10s) {
    std::optional<std::string> found;
    std::size_t checked = 0;
    testing_support::eventually(
        [&] {
          collect();
          for (; !found && checked < lines_.size(); ++checked) {
            if (lines_[checked].find(text) != std::string::npos) found = lines_[checked];
          }
          return found || status_;
        },
        timeout);
    return found;
  }
  // Lines written so far that contain `text`.
  int count(const std::string& text) {
    collect();
    int found = 0;
    for (const auto& line : lines_)
      found += line.find(text) != std::string::npos ? 1 : 0;
    return found;
  }
  std::string output() {
    collect();
    std::string text;
    for (const auto& line : lines_)
      text += line + "\n";
    return text + partial_;
  }
  void signal(int number) const {
    if (!status_) ::kill(pid_, number);
  }
  // The exit status (128 + its number for a signal), or nothing while it still runs.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout = 20s) {
    testing_support::eventually(
        [&] {
          collect();
          return status_.has_value();
        },
        timeout);
    return status_;
  }

 private:
  // Reaps the child if it has ended, then takes in what it wrote since the last call.
  void collect() {
    int status = 0;
    if (!status_ && ::waitpid(pid_, &status, WNOHANG) == pid_)
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    char buffer[4096];
    for (ssize_t n = 0; (n = ::pread(output_, buffer, sizeof buffer, read_)) > 0; read_ += n)
      partial_.append(buffer, static_cast<std::size_t>(n));
    for (std::size_t end = 0; (end = partial_.find('\n')) != std::string::npos;
         partial_.erase(0, end + 1))
      lines_.push_back(partial_.substr(0, end));
  }

  pid_t pid_ = -1;
  int output_ = -1;
  off_t read_ = 0;
  std::string partial_;
  std::vector<std::string> lines_;
  std::optional<int> status_;
};

// A dbus-daemon of the test's own, on a socket in a temporary folder.
class PrivateBus {
 public:
  PrivateBus();
  const std::string& address() const { return address_; }

 private:
  TemporaryDirectory folder_;
  std::string address_;
  std::optional<ChildProcess> daemon_;
};

// orinlink at `program` on free ports, with its files in `folder` (config/ and data/; settings
// that send no request to an Ollama of the machine's unless already there) and this process's
// variables but for the desktop's, which `environment` may set.
class OrinLinkProcess : public ChildProcess {
 public:
  OrinLinkProcess(const std::string& program, const std::filesystem::path& folder,
                  const std::map<std::string, std::string>& environment,
                  const std::vector<std::string>& arguments = {});
};

}  // namespace orin::test
