#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace orin::testing_support {

enum class XServerKind {
  xvfb,
  // Xvfb without RandR and MIT-SHM.
  bareXvfb,
  // Xorg with the dummy driver: real RandR outputs to turn into virtual displays.
  xorgDummy,
};

// An X server from scripts/xserver.sh on the first free display number, optionally with the
// animated, time-stamped test pattern on it; both stop when this goes.
class XServerProcess {
 public:
  struct Options {
    XServerKind kind = XServerKind::xvfb;
    std::string size = "1920x1080";
    // 0 for no pattern.
    int patternFramesPerSecond = 0;
  };

  // Why this kind of server cannot run on this machine, for a skip; nullopt when it can.
  static std::optional<std::string> unavailable(XServerKind kind);
  // Null when the server does not come up; the script says why on standard error.
  static std::unique_ptr<XServerProcess> start(const Options& options);
  ~XServerProcess();
  XServerProcess(const XServerProcess&) = delete;
  XServerProcess& operator=(const XServerProcess&) = delete;

  const std::string& display() const { return display_; }

 private:
  XServerProcess() = default;
  std::string display_;
  std::string pid_;
  std::string directory_;
};

// A display name that no server answers: neither its socket nor its lock file exists.
std::string unservedDisplay();

bool onPath(const std::string& program);
std::string shellQuoted(const std::string& text);
// The variables a start script prints as `export NAME=value...`, the values quoted by printf %q.
std::map<std::string, std::string> exportsOf(const std::string& output);
// Runs `command` with sh: its standard output and wait status.
std::pair<std::string, int> runShell(const std::string& command);

}  // namespace orin::testing_support
