#include <CLI/CLI.hpp>
#include <cstdio>
#include <optional>
#include <string>

#include "OrinLink/app/Application.h"
#include "OrinLink/common/AtomicFile.h"
#include "OrinLink/common/ErrorDescription.h"
#include "OrinLink/controlclient/ControlClient.h"
#include "OrinLink/system/EditionGuard.h"
#include "OrinLink/ui/QRCode.h"

namespace {

using orin::ControlClient;

// The running copy may have been started with a control port and configuration of its own: its
// lock record says which. Without a record, this configuration's port and secret.
ControlClient connect(const std::filesystem::path& configDirectory,
                      std::optional<std::uint16_t> port) {
  std::filesystem::path secretFile = configDirectory / "control-secret";
  if (!port) {
    std::optional<orin::RunningCopy> copy;
    try {
      copy = orin::EditionGuard::recordedCopy(orin::EditionGuard::defaultLockFolder());
    } catch (...) {
      // No lock folder, so no record either.
    }
    if (copy && copy->controlPort) {
      port = copy->controlPort;
      secretFile = copy->secretFile;
    }
  }
  auto secret = orin::readControlSecret(secretFile);
  if (!secret) {
    throw orin::Error("Orin Link has not run for this user yet. Start it with: orinlink");
  }
  return ControlClient(port.value_or(orin::controlPort(configDirectory)), std::move(*secret));
}

std::string minutesAndSeconds(std::int64_t seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%lld:%02lld", static_cast<long long>(seconds / 60),
                static_cast<long long>(seconds % 60));
  return text;
}

void printPairing(const ControlClient& client, bool codeOnly) {
  const auto state = client.get("/api/state");
  const auto& pairing = state["pairing"];
  if (codeOnly) {
    std::printf("%s\n", pairing["code"].get<std::string>().c_str());
    return;
  }
  std::printf("Pairing code  %s   (%s left)\n\n", pairing["code"].get<std::string>().c_str(),
              minutesAndSeconds(pairing["remainingSeconds"].get<std::int64_t>()).c_str());
  std::fputs(orin::qrForTerminal(pairing["payload"].get<std::string>()).c_str(), stdout);
  std::printf("\nEnter the code on your device, or scan the QR code.\n");
}

void printStatus(const ControlClient& client) {
  const auto state = client.get("/api/state");
  const auto& server = state["server"];
  const auto& runtime = state["runtime"];
  std::printf("AI service   %s\n", server["running"].get<bool>()
                                       ? ("listening on port " + server["port"].dump()).c_str()
                                       : "stopped");
  std::printf("Ollama       %s\n",
              runtime["available"].get<bool>() ? "reachable" : "not reachable");
  std::printf("Model        %s%s\n", runtime["activeModel"].get<std::string>().c_str(),
              runtime["activeModelInstalled"].get<bool>() ? "" : " (not downloaded)");
  std::printf("Devices      %zu paired\n", state["devices"].size());
  for (const auto& endpoint : state["endpoints"]) {
    std::printf("Endpoint     %s  %s:%s\n", endpoint["displayName"].get<std::string>().c_str(),
                endpoint["host"].get<std::string>().c_str(), endpoint["port"].dump().c_str());
  }
  std::printf("Last event   %s\n", state["lastEvent"].get<std::string>().c_str());
  if (const auto issue = state.value("setupIssue", nlohmann::json()); issue.is_object()) {
    std::printf("Next step    %s\n", issue["title"].get<std::string>().c_str());
    if (issue["copyCommand"].is_string()) {
      std::printf("             or run: %s\n", issue["copyCommand"].get<std::string>().c_str());
    }
  }
}

void printDevices(const ControlClient& client) {
  const auto state = client.get("/api/state");
  if (state["devices"].empty()) {
    std::printf("No device is paired yet. Run `orinlink pair` to see the code.\n");
    return;
  }
  for (const auto& device : state["devices"]) {
    const auto& seen = device["lastSeenAt"];
    std::printf("%s  %s  paired %s  last seen %s\n", device["id"].get<std::string>().c_str(),
                device["displayName"].get<std::string>().c_str(),
                device["pairedAt"].get<std::string>().c_str(),
                seen.is_null() ? "never" : seen.get<std::string>().c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App cli{
      "Orin Link lends this computer to your other devices: a local AI service and screen "
      "streaming for paired devices. Run without a command to start it."};
  cli.set_version_flag("--version", "orinlink 0.1.0");
  std::string configDirectory = orin::defaultConfigDirectory().string();
  std::string dataDirectory = orin::defaultDataDirectory().string();
  bool noAdvertise = false;
  bool noOpen = false;
  std::optional<std::uint16_t> serverPort;
  std::optional<std::uint16_t> controlPortOption;
  std::optional<std::uint16_t> streamPort;
  cli.add_option("--config-dir", configDirectory, "Where settings and the control secret live")
      ->capture_default_str();
  cli.add_option("--data-dir", dataDirectory, "Where the paired devices are kept")
      ->capture_default_str();
  cli.add_flag("--no-advertise", noAdvertise, "Do not announce the service on the local network");
  cli.add_flag("--no-open", noOpen,
               "Do not open the control panel at start (starting again opens it)");
  cli.add_option("--port", serverPort,
                 "Serve the AI service on this port for this run (0: any free port)");
  cli.add_option("--control-port", controlPortOption,
                 "Serve the control API on this loopback port (0: any free port)");
  cli.add_option("--stream-port", streamPort,
                 "Serve the screen stream on this port for this run (0: any free port)");

  bool codeOnly = false;
  auto* pair = cli.add_subcommand("pair", "Show the pairing code of the running Orin Link");
  pair->add_flag("--code-only", codeOnly, "Print just the code, for scripts");
  auto* status = cli.add_subcommand("status", "Show what the running Orin Link is doing");
  auto* diagnostics =
      cli.add_subcommand("diagnostics", "Print the running Orin Link's report for getting help");
  std::string removeId;
  auto* devices = cli.add_subcommand("devices", "List the paired devices");
  devices->add_option("--remove", removeId,
                      "Unpair the device with this id; its token stops working");
  CLI11_PARSE(cli, argc, argv);

  if (cli.get_subcommands().empty()) {
    return orin::runApplication({configDirectory, dataDirectory, !noAdvertise, serverPort,
                                 controlPortOption, streamPort, !noOpen});
  }
  try {
    const ControlClient client = connect(configDirectory, controlPortOption);
    if (pair->parsed()) printPairing(client, codeOnly);
    if (status->parsed()) printStatus(client);
    if (diagnostics->parsed()) {
      std::printf("%s\n", client.get("/api/state")["diagnosticSummary"].get<std::string>().c_str());
    }
    if (devices->parsed()) {
      if (!removeId.empty()) {
        client.post("/api/devices/remove", {{"id", removeId}});
        std::printf("Removed. That device must pair again to connect.\n");
      } else {
        printDevices(client);
      }
    }
  } catch (...) {
    std::fprintf(stderr, "orinlink: %s\n", orin::describe(std::current_exception()).c_str());
    return 1;
  }
  return 0;
}
