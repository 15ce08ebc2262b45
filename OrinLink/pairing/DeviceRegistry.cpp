#include "OrinLink/pairing/DeviceRegistry.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstring>
#include <random>

#include <openssl/rand.h>

#include "OrinLink/common/AtomicFile.h"
#include "OrinLink/pairing/TokenHash.h"
#include "OrinLinkShared/Base64.h"
#include "OrinLinkShared/JSONCoding.h"

namespace orin {
namespace {

constexpr std::uint32_t codeBase = 100000;
constexpr std::uint32_t codeSpan = 900000;
constexpr std::size_t tokenBytes = 32;

const char* descriptionOf(PairingError::Kind kind) {
  switch (kind) {
    case PairingError::Kind::tooManyAttempts:
      return "Too many incorrect codes. Wait one minute, then enter the current code shown on the "
             "Mac.";
    case PairingError::Kind::tokenUnavailable:
      return "Could not create a secure pairing token. Please try again.";
    case PairingError::Kind::invalidCode:
      return "The pairing code did not match.";
    case PairingError::Kind::expiredCode:
      return "The pairing code expired. A new code is now available.";
  }
  return "The pairing code did not match.";
}

std::uint32_t drawWord(const DeviceRegistry::RandomSource& random) {
  std::array<std::uint8_t, 4> bytes{};
  if (!random(bytes)) {
    // A code must always be shown; the kernel's generator stands in for a failing source.
    std::random_device device;
    return device();
  }
  std::uint32_t word = 0;
  std::memcpy(&word, bytes.data(), sizeof word);
  return word;
}

// Uniform over 100000...999999: words in the incomplete last block of the span are redrawn, so
// no code is likelier than another.
std::string makePairingCode(const DeviceRegistry::RandomSource& random) {
  constexpr std::uint64_t limit = (std::uint64_t{1} << 32) - (std::uint64_t{1} << 32) % codeSpan;
  std::uint32_t word = drawWord(random);
  while (word >= limit)
    word = drawWord(random);
  const std::string digits = std::to_string(codeBase + word % codeSpan);
  return digits.substr(0, 3) + " " + digits.substr(3);
}

std::string withoutBlanks(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (c != ' ') out.push_back(c);
  }
  return out;
}

Date parseISO8601(const json::ObjectReader& reader, std::string_view key, const std::string& text) {
  if (auto date = Date::parseISO8601(text)) return *date;
  json::throwDataCorrupted(reader.path().child(key),
                           "Expected date string to be ISO8601-formatted.");
}

Date requiredISO8601(const json::ObjectReader& reader, std::string_view key) {
  return parseISO8601(reader, key, reader.required<std::string>(key));
}

std::optional<Date> optionalISO8601(const json::ObjectReader& reader, std::string_view key) {
  const auto text = reader.optional<std::string>(key);
  if (!text) return std::nullopt;
  return parseISO8601(reader, key, *text);
}

}  // namespace

PairingError::PairingError(Kind kind) : Error(descriptionOf(kind)), kind_(kind) {}

PairedDevice PairedDevice::decode(const json::Value& value, const json::CodingPath& path) {
  const json::ObjectReader r(value, path);
  return {r.required<Uuid>("id"),
          r.required<std::string>("deviceId"),
          r.required<std::string>("displayName"),
          r.required<std::string>("tokenHash"),
          requiredISO8601(r, "pairedAt"),
          optionalISO8601(r, "lastSeenAt")};
}

json::Ordered PairedDevice::encode() const {
  std::optional<std::string> lastSeen;
  if (lastSeenAt) lastSeen = lastSeenAt->iso8601();
  return json::ObjectWriter()
      .set("id", id)
      .set("deviceId", deviceId)
      .set("displayName", displayName)
      .set("tokenHash", tokenHash)
      .set("pairedAt", pairedAt.iso8601())
      .set("lastSeenAt", lastSeen)
      .take();
}

std::filesystem::path DeviceRegistry::defaultFile() {
  return defaultDataDirectory() / "paired-devices.json";
}

bool DeviceRegistry::systemRandom(std::span<std::uint8_t> bytes) {
  if (bytes.size() > static_cast<std::size_t>(INT_MAX)) return false;
  return RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) == 1;
}

DeviceRegistry::DeviceRegistry(std::filesystem::path file, Clock now, RandomSource random)
    : file_(std::move(file)), now_(std::move(now)), random_(std::move(random)) {
  pairingCode_ = makePairingCode(random_);
  pairingCodeCreatedAt_ = now_();
  try {
    if (file_.has_parent_path()) createPrivateDirectory(file_.parent_path(), 0700);
  } catch (const std::system_error&) {
    // Without the folder saves fail, and those failures are silent too.
  }
  if (const auto text = readFile(file_)) {
    try {
      devices_ = decodeJSON<std::vector<PairedDevice>>(*text);
    } catch (const Error&) {
      devices_.clear();
    }
  }
}

std::int64_t DeviceRegistry::pairingCodeRemainingSeconds() const {
  const double remaining = pairingCodeLifetime - now_().secondsSince(pairingCodeCreatedAt_);
  return remaining > 0 ? static_cast<std::int64_t>(std::trunc(remaining)) : 0;
}

void DeviceRegistry::refreshPairingCode() {
  pairingCode_ = makePairingCode(random_);
  pairingCodeCreatedAt_ = now_();
  changed();
}

bool DeviceRegistry::authenticate(const std::optional<std::string>& token) {
  if (!token || token->empty()) return false;
  const std::string hash = tokenHash(*token);
  for (auto& device : devices_) {
    if (!sameTokenHash(device.tokenHash, hash)) continue;
    device.lastSeenAt = now_();
    save();
    changed();
    return true;
  }
  return false;
}

std::optional<std::string> DeviceRegistry::deviceName(
    const std::optional<std::string>& token) const {
  if (!token || token->empty()) return std::nullopt;
  const std::string hash = tokenHash(*token);
  for (const auto& device : devices_) {
    if (sameTokenHash(device.tokenHash, hash)) return device.displayName;
  }
  return std::nullopt;
}

std::string DeviceRegistry::pair(const std::string& deviceId, const std::string& displayName,
                                 const std::string& code) {
  const Date now = now_();
  if (blockedUntil_) {
    if (now < *blockedUntil_) throw PairingError(PairingError::Kind::tooManyAttempts);
    blockedUntil_.reset();
    failedAttempts_ = 0;
  }
  if (!(now < pairingCodeCreatedAt_.adding(pairingCodeLifetime))) {
    refreshPairingCode();
    throw PairingError(PairingError::Kind::expiredCode);
  }
  if (withoutBlanks(code) != withoutBlanks(pairingCode_)) {
    if (++failedAttempts_ < maxFailedAttempts) throw PairingError(PairingError::Kind::invalidCode);
    blockedUntil_ = now.adding(lockoutSeconds);
    throw PairingError(PairingError::Kind::tooManyAttempts);
  }

  std::array<std::uint8_t, tokenBytes> bytes{};
  if (!random_(bytes)) throw PairingError(PairingError::Kind::tokenUnavailable);
  std::string token = base64::encode(bytes);
  OPENSSL_cleanse(bytes.data(), bytes.size());
  failedAttempts_ = 0;

  std::string hash = tokenHash(token);
  const auto existing = std::find_if(devices_.begin(), devices_.end(),
                                     [&](const PairedDevice& d) { return d.deviceId == deviceId; });
  if (existing != devices_.end()) {
    // Indexed, since the callback may reach back into the registry.
    const auto index = static_cast<std::size_t>(existing - devices_.begin());
    const std::string oldHash = existing->tokenHash;
    if (onRevoked) onRevoked(oldHash);
    PairedDevice& device = devices_.at(index);
    device.displayName = displayName;
    device.tokenHash = std::move(hash);
    device.pairedAt = now;
  } else {
    devices_.push_back({Uuid::random(), deviceId, displayName, std::move(hash), now, std::nullopt});
  }
  save();

  refreshPairingCode();
  if (onPaired) onPaired(displayName);
  return token;
}

bool DeviceRegistry::removeDevice(const Uuid& id) {
  const auto it = std::find_if(devices_.begin(), devices_.end(),
                               [&](const PairedDevice& d) { return d.id == id; });
  if (it == devices_.end()) return false;
  const std::string hash = it->tokenHash;
  devices_.erase(it);
  if (onRevoked) onRevoked(hash);
  save();
  changed();
  return true;
}

void DeviceRegistry::save() {
  try {
    std::string text = encodeJSON(devices_, json::Format::prettySortedKeys);
    if (writer_) {
      writer_(std::move(text));
    } else {
      writePrivateFile(file_, text);
    }
  } catch (const std::exception&) {
    // The list in memory stays authoritative; the next change tries the file again.
  }
}

void DeviceRegistry::changed() {
  if (onChanged) onChanged();
}

}  // namespace orin
