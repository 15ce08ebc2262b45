#include "tests/support/WaylandSessionProcess.h"

#include <unistd.h>

#include "tests/support/XServerProcess.h"

namespace orin::testing_support {

std::optional<std::string> WaylandSessionProcess::unavailable() {
  for (const char* program : {"dbus-daemon", "dbus-send", "pipewire", "pw-cli", "wireplumber",
                              "mutter", "Xwayland", "xrandr", "setsid"}) {
    if (!onPath(program)) return std::string(program) + " is not installed";
  }
  return std::nullopt;
}

std::unique_ptr<WaylandSessionProcess> WaylandSessionProcess::start(const Options& options) {
  std::string command = "ORIN_TEST_PATTERN=" + shellQuoted(TEST_PATTERN_PATH) + " " +
                        shellQuoted(WAYLAND_SESSION_SCRIPT) + " start --owner " +
                        std::to_string(::getpid()) + " --size " + shellQuoted(options.size);
  if (!options.compositor) command += " --no-compositor";
  if (options.patternFramesPerSecond > 0)
    command += " --pattern " + std::to_string(options.patternFramesPerSecond);
  const auto [output, status] = runShell(command);
  auto values = exportsOf(output);
  auto session = std::unique_ptr<WaylandSessionProcess>(new WaylandSessionProcess);
  session->busAddress_ = values["DBUS_SESSION_BUS_ADDRESS"];
  session->runtimeDir_ = values["XDG_RUNTIME_DIR"];
  session->waylandDisplay_ = values["WAYLAND_DISPLAY"];
  session->xDisplay_ = values["DISPLAY"];
  session->xauthority_ = values["XAUTHORITY"];
  session->pid_ = values["ORIN_WAYLAND_PID"];
  session->directory_ = values["ORIN_WAYLAND_DIR"];
  if (status != 0 || session->pid_.empty() || session->busAddress_.empty()) return nullptr;
  return session;
}

WaylandSessionProcess::~WaylandSessionProcess() {
  runShell("ORIN_WAYLAND_PID=" + pid_ + " ORIN_WAYLAND_DIR=" + shellQuoted(directory_) + " " +
           shellQuoted(WAYLAND_SESSION_SCRIPT) + " stop");
}

}  // namespace orin::testing_support
