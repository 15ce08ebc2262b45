#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/core/TemporaryDirectory.h"

namespace orin::test {

using namespace std::chrono_literals;

// A child process whose standard output (and error) the test reads line by line.
class ChildProcess {
 public:
  // `environment` is added to ours; an empty value removes the variable.
  ChildProcess(std::vector<std::string> argv, std::map<std::string, std::string> environment = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The first line (read so far or arriving before the time-out) that contains `text`.
  std::optional<std::string> waitForLine(const std::string& text,
                                         std::chrono::milliseconds timeout = 10s);
  // Lines read so far that contain `text`; reads what has arrived first.
  int count(const std::string& text);
  const std::vector<std::string>& lines();
  std::string output();
  // The exit status, or nothing when it still runs at the time-out.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout = 20s);
  pid_t pid() const { return pid_; }

 private:
  // Reads what is there, waiting at most `timeout` for something to arrive; false at the end.
  bool pump(std::chrono::milliseconds timeout);

  pid_t pid_ = -1;
  int output_ = -1;
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

// Sets (or, with nothing, removes) variables of this process while it lives.
class ScopedEnvironment {
 public:
  explicit ScopedEnvironment(const std::map<std::string, std::optional<std::string>>& values);
  ~ScopedEnvironment();
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

// Points this process's system and session buses at `address`.
class BusEnvironment : public ScopedEnvironment {
 public:
  explicit BusEnvironment(const std::string& address)
      : ScopedEnvironment(
            {{"DBUS_SYSTEM_BUS_ADDRESS", address}, {"DBUS_SESSION_BUS_ADDRESS", address}}) {}
};

}  // namespace orin::test
