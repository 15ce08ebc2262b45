#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace orin {

// What the application asks of the operating system beyond sockets. Blocking calls are made off
// the main loop by their callers.
class SystemActions {
 public:
  virtual ~SystemActions() = default;

  virtual bool fileExists(const std::filesystem::path& path) = 0;
  // The first match on PATH, or nothing.
  virtual std::optional<std::filesystem::path> findOnPath(const std::string& name) = 0;
  // Starts a program detached from us with its output discarded; false when it cannot start.
  virtual bool launchDetached(const std::vector<std::string>& argv) = 0;
  // Runs a program to completion and returns its standard output; nothing if it cannot run.
  // Blocks.
  virtual std::optional<std::string> runCapturingOutput(const std::vector<std::string>& argv) = 0;
  struct Outcome {
    int exitStatus = -1;
    // Standard output and error, as written.
    std::string output;
  };
  // Runs a program to completion; nothing if it cannot run. Blocks.
  virtual std::optional<Outcome> run(const std::vector<std::string>& argv) = 0;
  // Opens a web page in the user's browser.
  virtual void openURL(const std::string& url) = 0;
  virtual std::uint64_t physicalMemoryBytes() = 0;
  // The name people know this computer by, or nothing.
  virtual std::optional<std::string> computerName() = 0;
};

// The real thing: posix_spawn, sysconf, xdg-open.
class PosixSystemActions final : public SystemActions {
 public:
  bool fileExists(const std::filesystem::path& path) override;
  std::optional<std::filesystem::path> findOnPath(const std::string& name) override;
  bool launchDetached(const std::vector<std::string>& argv) override;
  std::optional<std::string> runCapturingOutput(const std::vector<std::string>& argv) override;
  std::optional<Outcome> run(const std::vector<std::string>& argv) override;
  void openURL(const std::string& url) override;
  std::uint64_t physicalMemoryBytes() override;
  // PRETTY_HOSTNAME from /etc/machine-info, else the host name.
  std::optional<std::string> computerName() override;
};

}  // namespace orin
