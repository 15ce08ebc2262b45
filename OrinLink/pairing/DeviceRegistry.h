#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "OrinLink/common/AtomicFile.h"
#include "OrinLinkShared/AIRecords.h"
#include "OrinLinkShared/Date.h"
#include "OrinLinkShared/Error.h"
#include "OrinLinkShared/Pairing.h"
#include "OrinLinkShared/Uuid.h"

namespace orin {

struct PairedDevice {
  Uuid id;
  std::string deviceId;
  std::string displayName;
  std::string tokenHash;
  Date pairedAt;
  std::optional<Date> lastSeenAt;

  // The registry file's form: ISO 8601 dates, "lastSeenAt" left out until first seen.
  static PairedDevice decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const PairedDevice&) const = default;
};

class PairingError : public Error {
 public:
  enum class Kind { tooManyAttempts, tokenUnavailable, invalidCode, expiredCode };
  explicit PairingError(Kind kind);
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

// The paired devices and the current pairing code; the one place where tokens are checked, by
// hash. Used on the main loop only.
class DeviceRegistry {
 public:
  using Clock = std::function<Date()>;
  // Fills the buffer with secure random bytes; false when the system cannot.
  using RandomSource = std::function<bool(std::span<std::uint8_t>)>;

  static constexpr double pairingCodeLifetime = 600;
  static constexpr int maxFailedAttempts = 5;
  static constexpr double lockoutSeconds = 60;

  // $XDG_DATA_HOME/OrinLink/paired-devices.json
  static std::filesystem::path defaultFile();
  static bool systemRandom(std::span<std::uint8_t> bytes);

  // Makes the first code, creates the folder (0700) and loads the file; an unreadable or
  // malformed file is an empty list, left in place until the next save.
  explicit DeviceRegistry(std::filesystem::path file = defaultFile(), Clock now = Date::now,
                          RandomSource random = systemRandom);

  const std::vector<PairedDevice>& devices() const { return devices_; }
  const std::string& pairingCode() const { return pairingCode_; }
  Date pairingCodeCreatedAt() const { return pairingCodeCreatedAt_; }
  const std::filesystem::path& file() const { return file_; }

  // Whole seconds left, never below 0.
  std::int64_t pairingCodeRemainingSeconds() const;
  void refreshPairingCode();

  // True when the token belongs to a device; records it as seen and saves.
  bool authenticate(const std::optional<std::string>& token);
  std::optional<std::string> deviceName(const std::optional<std::string>& token) const;

  // Returns the new token or throws PairingError.
  std::string pair(const std::string& deviceId, const std::string& displayName,
                   const std::string& code);

  // Forgets the device and revokes its token at once; false when there is no such device.
  bool removeDevice(const Uuid& id);

  // Takes over writing the file (see FileWriter); failures are then the writer's to ignore.
  void setFileWriter(FileWriter writer) { writer_ = std::move(writer); }

  // Set by the owner.
  std::function<void(const std::string& displayName)> onPaired;
  std::function<void(const std::string& tokenHash)> onRevoked;
  // The device list or the code changed.
  std::function<void()> onChanged;

 private:
  void save();
  void changed();

  std::filesystem::path file_;
  Clock now_;
  RandomSource random_;
  std::vector<PairedDevice> devices_;
  std::string pairingCode_;
  Date pairingCodeCreatedAt_;
  int failedAttempts_ = 0;
  std::optional<Date> blockedUntil_;
  FileWriter writer_;
};

}  // namespace orin
