#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>

namespace orin {

struct ApplicationOptions {
  std::filesystem::path configDirectory;  // settings.json, control-secret
  std::filesystem::path dataDirectory;    // paired-devices.json
  bool advertise = true;
};

// Runs Orin Link until SIGINT or SIGTERM; returns the exit status.
int runApplication(const ApplicationOptions& options);

// The control API's port for this user: the "controlPort" setting, else the default.
std::uint16_t controlPort(const std::filesystem::path& configDirectory);

}  // namespace orin
