#include "tests/support/XServerProcess.h"

#include <cstdio>
#include <sstream>
#include <sys/stat.h>

namespace orin::testing_support {
namespace {

bool exists(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0;
}

}  // namespace

std::optional<std::string> XServerProcess::unavailable(XServerKind kind) {
  if (kind != XServerKind::xorgDummy) {
    if (onPath("Xvfb")) return std::nullopt;
    return "Xvfb is not installed";
  }
  if (onPath("Xorg") && exists("/usr/lib/xorg/modules/drivers/dummy_drv.so")) return std::nullopt;
  return "Xorg with the dummy driver is not installed";
}

std::unique_ptr<XServerProcess> XServerProcess::start(const Options& options) {
  std::string command = "ORIN_TEST_PATTERN=" + shellQuoted(TEST_PATTERN_PATH) + " " +
                        shellQuoted(XSERVER_SCRIPT) + " start --size " + shellQuoted(options.size);
  if (options.kind == XServerKind::bareXvfb) command += " --bare";
  if (options.kind == XServerKind::xorgDummy) command += " --xorg";
  if (options.patternFramesPerSecond > 0)
    command += " --pattern " + std::to_string(options.patternFramesPerSecond);
  const auto [output, status] = runShell(command);
  auto values = exportsOf(output);
  auto server = std::unique_ptr<XServerProcess>(new XServerProcess);
  server->display_ = values["DISPLAY"];
  server->pid_ = values["ORIN_XSERVER_PID"];
  server->directory_ = values["ORIN_XSERVER_DIR"];
  if (status != 0 || server->display_.empty() || server->pid_.empty()) return nullptr;
  return server;
}

XServerProcess::~XServerProcess() {
  runShell("ORIN_XSERVER_PID=" + pid_ + " ORIN_XSERVER_DIR=" + shellQuoted(directory_) + " " +
           shellQuoted(XSERVER_SCRIPT) + " stop");
}

std::string unservedDisplay() {
  int number = 4000;
  while (exists("/tmp/.X11-unix/X" + std::to_string(number)) ||
         exists("/tmp/.X" + std::to_string(number) + "-lock")) {
    ++number;
  }
  return ":" + std::to_string(number);
}

bool onPath(const std::string& program) {
  return runShell("command -v " + shellQuoted(program) + " >/dev/null 2>&1").second == 0;
}

std::string shellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::map<std::string, std::string> exportsOf(const std::string& output) {
  std::map<std::string, std::string> values;
  std::istringstream words(output);
  for (std::string word; words >> word;) {
    if (word.back() == ';') word.pop_back();
    const auto at = word.find('=');
    if (at == std::string::npos) continue;
    // printf %q only puts backslashes before characters.
    std::string& value = values[word.substr(0, at)];
    for (std::size_t i = at + 1; i < word.size(); ++i) {
      if (word[i] == '\\' && i + 1 < word.size()) ++i;
      value += word[i];
    }
  }
  return values;
}

std::pair<std::string, int> runShell(const std::string& command) {
  std::FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return {{}, -1};
  std::string output;
  char buffer[4096];
  while (std::fgets(buffer, sizeof buffer, pipe) != nullptr)
    output += buffer;
  return {output, ::pclose(pipe)};
}

}  // namespace orin::testing_support
