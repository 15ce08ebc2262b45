#include "OrinLink/core/Diagnostics.h"

namespace orin {

namespace {

std::string onOff(bool on) {
  return on ? "on" : "off";
}

std::string orNone(const std::optional<std::string>& text) {
  return text.value_or("none");
}

}  // namespace

std::string_view facilityName(MissingFacility facility) {
  switch (facility) {
    case MissingFacility::sleepPrevention:
      return "sleep prevention";
    case MissingFacility::loginItem:
      return "start at login";
    case MissingFacility::notifications:
      return "notifications";
    case MissingFacility::sound:
      return "sound";
    case MissingFacility::presence:
      return "tray icon";
    case MissingFacility::graphicalSession:
      return "graphical session";
    case MissingFacility::discovery:
      break;
  }
  return "network discovery";
}

std::vector<MissingFacility> missingFacilities(const DesktopIntegration& desktop,
                                               std::optional<bool> discoveryAvailable) {
  const auto& has = desktop.availability;
  std::vector<MissingFacility> missing;
  const auto check = [&missing](bool present, MissingFacility facility) {
    if (!present) missing.push_back(facility);
  };
  check(desktop.sleepPrevention && has.sleepPrevention, MissingFacility::sleepPrevention);
  check(desktop.loginItem && has.loginItem, MissingFacility::loginItem);
  check(desktop.notifications && has.notifications, MissingFacility::notifications);
  check(desktop.sound && has.sound, MissingFacility::sound);
  check(desktop.presence && has.presence, MissingFacility::presence);
  check(has.graphicalSession, MissingFacility::graphicalSession);
  check(discoveryAvailable.value_or(true), MissingFacility::discovery);
  return missing;
}

std::string diagnosticSummary(const StateSnapshot& state) {
  const auto& stream = state.stream;
  std::vector<std::string> lines{
      "Orin Link Diagnostics",
      "Server: " + std::string(state.isServerRunning ? "running" : "stopped") + " on port " +
          std::to_string(state.serverPort),
      "Runtime: " +
          std::string(state.isOllamaAvailable ? "Ollama reachable" : "Ollama unavailable"),
      "Active model: " + state.activeModel,
      "Ollama base URL: " + state.baseURLText,
      "Paired devices: " + std::to_string(state.pairedDevices),
      "Reliability Mode: " + onOff(state.reliabilityModeEnabled),
      "Start at Login: " + onOff(state.startAtLoginEnabled),
      "Screen streaming: " +
          (stream.isEnabled ? "enabled on port " + std::to_string(stream.port) : "off"),
      "Streaming status: " + stream.statusText,
      "Streaming error: " + orNone(stream.error),
      "Capture: " + (stream.capture.empty() ? std::string("not checked yet") : stream.capture),
      "Virtual displays: " + stream.virtualDisplayProblem.value_or("available"),
      "Last event: " + state.lastEvent,
      "Server error: " + orNone(state.serverError),
      "Ollama error: " + orNone(state.ollamaError),
      "Availability error: " + orNone(state.availabilityError),
  };
  if (!state.missingFacilities.empty()) {
    std::string line = "Missing on this machine: ";
    for (std::size_t i = 0; i < state.missingFacilities.size(); ++i) {
      if (i > 0) line += ", ";
      line += facilityName(state.missingFacilities[i]);
    }
    lines.push_back(std::move(line));
  }
  lines.emplace_back();
  lines.emplace_back("Endpoints:");
  for (const auto& endpoint : state.endpoints) {
    lines.push_back("- " + endpoint.displayName + ": " + endpoint.host + ":" +
                    std::to_string(endpoint.port) + " [" +
                    std::string(rawValue(endpoint.connectionKind)) + "]");
  }
  if (state.endpoints.empty()) lines.emplace_back("- none detected");

  std::string report;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i > 0) report += '\n';
    report += lines[i];
  }
  return report;
}

}  // namespace orin
