#pragma once

#include <cstdlib>
#include <map>
#include <optional>
#include <string>

namespace orin::test {

// Sets (or, with nothing, removes) variables of this process while it lives.
class ScopedEnvironment {
 public:
  explicit ScopedEnvironment(const std::map<std::string, std::optional<std::string>>& values) {
    for (const auto& [name, value] : values) {
      const char* now = std::getenv(name.c_str());
      saved_[name] = now != nullptr ? std::optional<std::string>(now) : std::nullopt;
      assign(name, value);
    }
  }
  ~ScopedEnvironment() {
    for (const auto& [name, value] : saved_)
      assign(name, value);
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  static void assign(const std::string& name, const std::optional<std::string>& value) {
    if (value) {
      ::setenv(name.c_str(), value->c_str(), 1);
    } else {
      ::unsetenv(name.c_str());
    }
  }

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
