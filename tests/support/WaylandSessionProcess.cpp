#include "tests/support/WaylandSessionProcess.h"

#include <map>
#include <sstream>
#include <unistd.h>

#include "tests/support/XServerProcess.h"

namespace orin::testing_support {
namespace {

// The script quotes values with printf %q, which only puts backslashes before characters.
std::string unquoted(const std::string& word) {
  std::string text;
  for (std::size_t i = 0; i < word.size(); ++i) {
    if (word[i] == '\\' && i + 1 < word.size()) ++i;
    text += word[i];
  }
  return text;
}

}  // namespace

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
  const auto [exports, status] = runShell(command);

  auto session = std::unique_ptr<WaylandSessionProcess>(new WaylandSessionProcess);
  std::map<std::string, std::string*> fields = {{"DBUS_SESSION_BUS_ADDRESS", &session->busAddress_},
                                                {"XDG_RUNTIME_DIR", &session->runtimeDir_},
                                                {"WAYLAND_DISPLAY", &session->waylandDisplay_},
                                                {"DISPLAY", &session->xDisplay_},
                                                {"XAUTHORITY", &session->xauthority_},
                                                {"ORIN_WAYLAND_PID", &session->pid_},
                                                {"ORIN_WAYLAND_DIR", &session->directory_}};
  std::istringstream words(exports);
  for (std::string word; words >> word;) {
    if (!word.empty() && word.back() == ';') word.pop_back();
    const auto at = word.find('=');
    if (at == std::string::npos) continue;
    if (auto field = fields.find(word.substr(0, at)); field != fields.end())
      *field->second = unquoted(word.substr(at + 1));
  }
  if (status != 0 || session->pid_.empty() || session->busAddress_.empty()) return nullptr;
  return session;
}

WaylandSessionProcess::~WaylandSessionProcess() {
  runShell("ORIN_WAYLAND_PID=" + pid_ + " ORIN_WAYLAND_DIR=" + shellQuoted(directory_) + " " +
           shellQuoted(WAYLAND_SESSION_SCRIPT) + " stop");
}

}  // namespace orin::testing_support
