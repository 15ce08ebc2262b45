#pragma once

#include <memory>
#include <optional>
#include <string>

namespace orin::testing_support {

// A headless GNOME session from scripts/wayland-session.sh: a bus of its own, PipeWire and
// WirePlumber, and unless left out mutter with one virtual monitor and Xwayland, optionally
// showing the time-stamped test pattern. It stops when this goes, and also when the test process
// dies without running destructors.
class WaylandSessionProcess {
 public:
  struct Options {
    std::string size = "1920x1080";
    // 0 for no pattern; needs the compositor.
    int patternFramesPerSecond = 0;
    bool compositor = true;
  };

  // Why the session cannot run on this machine, for a skip; nullopt when it can.
  static std::optional<std::string> unavailable();
  // Null when the session does not come up; the script says why on standard error.
  static std::unique_ptr<WaylandSessionProcess> start(const Options& options);
  ~WaylandSessionProcess();
  WaylandSessionProcess(const WaylandSessionProcess&) = delete;
  WaylandSessionProcess& operator=(const WaylandSessionProcess&) = delete;

  const std::string& busAddress() const { return busAddress_; }
  const std::string& runtimeDir() const { return runtimeDir_; }
  // Empty without the compositor.
  const std::string& waylandDisplay() const { return waylandDisplay_; }
  const std::string& xDisplay() const { return xDisplay_; }
  const std::string& xauthority() const { return xauthority_; }

 private:
  WaylandSessionProcess() = default;
  std::string busAddress_;
  std::string runtimeDir_;
  std::string waylandDisplay_;
  std::string xDisplay_;
  std::string xauthority_;
  std::string pid_;
  std::string directory_;
};

}  // namespace orin::testing_support
