#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

namespace orin {

struct ApplicationOptions {
  std::filesystem::path configDirectory;  // settings.json, control-secret
  std::filesystem::path dataDirectory;    // paired-devices.json
  bool advertise = true;
  // For this run only, instead of the settings; 0 lets the system choose.
  std::optional<std::uint16_t> serverPort;
  std::optional<std::uint16_t> controlPort;
  // The screen stream's port instead of the stored one; 0 lets the system choose.
  std::optional<std::uint16_t> streamPort;
  // False when started at login: the control panel opens only when asked.
  bool openControlPanel = true;
};

// Runs Orin Link until SIGINT or SIGTERM; returns the exit status.
int runApplication(const ApplicationOptions& options);

// The control API's port for this user: the "controlPort" setting, else the default.
std::uint16_t controlPort(const std::filesystem::path& configDirectory);

}  // namespace orin
