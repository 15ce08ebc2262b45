#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "OrinLinkShared/Error.h"
#include "OrinLinkShared/JSONCoding.h"

namespace orin::device {

// What this device remembers between runs. Everything is optional so that a file written by an
// older or newer client still reads.
struct DeviceState {
  // Kept so the host sees the same device on every pairing.
  std::optional<std::string> deviceId;
  std::optional<std::string> displayName;
  std::optional<std::string> host;
  std::optional<std::uint16_t> port;
  std::optional<std::string> token;

  static DeviceState decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const DeviceState&) const = default;
};

class StateFileError : public Error {
 public:
  using Error::Error;
};

// $XDG_CONFIG_HOME/orinlink-device/device.json, or under ~/.config. Throws StateFileError when
// there is no home folder to go by.
std::filesystem::path defaultStatePath();

// The empty state when the file is missing or cannot be read as a state.
DeviceState loadState(const std::filesystem::path& path);

// Replaces the file so that a crash leaves the old or the new one, readable by the owner only;
// folders it has to create are private too. Throws StateFileError.
void saveState(const std::filesystem::path& path, const DeviceState& state);

}  // namespace orin::device
