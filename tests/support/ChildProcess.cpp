#include "tests/support/ChildProcess.h"

#include <cstdlib>
#include <fstream>

namespace orin::test {

namespace fs = std::filesystem;

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

// Also writes what orinlink is to find in `folder`; libx265 keeps allocations for the life of
// the process, which LeakSanitizer is told.
std::vector<std::string> orinLinkCommand(const std::string& program, const fs::path& folder,
                                         const std::vector<std::string>& arguments) {
  fs::create_directories(folder / "config");
  if (!fs::exists(folder / "config" / "settings.json")) {
    std::ofstream(folder / "config" / "settings.json")
        << R"({"ollamaBaseURL": "http://127.0.0.1:9"})";
  }
  std::ofstream(folder / "lsan.supp") << "leak:libx265.so\n";
  std::vector<std::string> argv{program,
                                "--config-dir",
                                (folder / "config").string(),
                                "--data-dir",
                                (folder / "data").string(),
                                "--port",
                                "0",
                                "--control-port",
                                "0",
                                "--stream-port",
                                "0",
                                "--no-advertise"};
  argv.insert(argv.end(), arguments.begin(), arguments.end());
  return argv;
}

std::map<std::string, std::string> orinLinkEnvironment(
    const fs::path& folder, const std::map<std::string, std::string>& environment) {
  const char* lsan = std::getenv("LSAN_OPTIONS");
  std::map<std::string, std::string> variables{
      {"HOME", folder.string()},
      {"XDG_CONFIG_HOME", (folder / "xdg-config").string()},
      {"XDG_DATA_HOME", (folder / "xdg-data").string()},
      {"XDG_RUNTIME_DIR", folder.string()},
      {"LSAN_OPTIONS", std::string(lsan ? lsan : "") + (lsan ? ":" : "") +
                           "suppressions=" + (folder / "lsan.supp").string()}};
  for (const char* desktop : {"DISPLAY", "WAYLAND_DISPLAY", "XDG_SESSION_TYPE", "XAUTHORITY",
                              "DBUS_SESSION_BUS_ADDRESS", "PIPEWIRE_REMOTE"})
    variables[desktop] = "";
  for (const auto& [name, value] : environment)
    variables[name] = value;
  return variables;
}

}  // namespace

OrinLinkProcess::OrinLinkProcess(const std::string& program, const fs::path& folder,
                                 const std::map<std::string, std::string>& environment,
                                 const std::vector<std::string>& arguments)
    : ChildProcess(orinLinkCommand(program, folder, arguments),
                   orinLinkEnvironment(folder, environment)) {}

}  // namespace orin::test
