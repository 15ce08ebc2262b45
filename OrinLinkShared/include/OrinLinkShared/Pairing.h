#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "OrinLinkShared/AIRecords.h"
#include "OrinLinkShared/Date.h"
#include "OrinLinkShared/JSONCoding.h"

namespace orin {

// Body of POST /v1/pair.
struct PairRequest {
  std::string pairingCode;
  std::string deviceId;
  std::string displayName;

  static PairRequest decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const PairRequest&) const = default;
};

// The reply: the token, given out once.
struct PairResponse {
  std::string deviceId;
  std::string token;

  static PairResponse decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const PairResponse&) const = default;
};

// What the QR code carries. Its date is ISO 8601 text, unlike the reference-date numbers of
// generation requests.
struct PairingPayload {
  static constexpr std::string_view appName = "Orin Link";
  static constexpr std::int64_t currentVersion = 1;

  std::string app = std::string(appName);
  std::int64_t version = currentVersion;
  std::string pairingCode;
  Date expiresAt;
  std::uint16_t port = 0;
  std::vector<OrinLinkEndpoint> endpoints;

  // Pretty-printed with sorted keys; "{}" when it cannot be encoded.
  std::string text() const;

  static PairingPayload decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const PairingPayload&) const = default;
};

}  // namespace orin
