#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "OrinLinkShared/Date.h"
#include "OrinLinkShared/Enum.h"
#include "OrinLinkShared/JSONCoding.h"
#include "OrinLinkShared/JSONValue.h"
#include "OrinLinkShared/Uuid.h"

// The records that the host and its device clients exchange over the local AI service.
// Each is a plain value whose JSON keys are its field names; optional fields are left out when
// absent and read as absent when missing or null.
namespace orin {

enum class OrinLinkConnectionKind { localNetwork, tailscale, manual };
enum class OrinLinkStatus { success, failed, unavailable, approvalRequired, missingDetails };
enum class OrinLane { chat, toolProposal, approvedToolExecution };
enum class OrinToolResultStatus {
  success,
  denied,
  cancelled,
  failed,
  needsPermission,
  needsConfirmation
};

template <>
struct EnumTraits<OrinLinkConnectionKind> {
  static constexpr std::array<std::string_view, 3> rawValues{"localNetwork", "tailscale", "manual"};
};
template <>
struct EnumTraits<OrinLinkStatus> {
  static constexpr std::array<std::string_view, 5> rawValues{"success", "failed", "unavailable",
                                                             "approvalRequired", "missingDetails"};
};
template <>
struct EnumTraits<OrinLane> {
  static constexpr std::array<std::string_view, 3> rawValues{"chat", "toolProposal",
                                                             "approvedToolExecution"};
};
template <>
struct EnumTraits<OrinToolResultStatus> {
  static constexpr std::array<std::string_view, 6> rawValues{
      "success", "denied", "cancelled", "failed", "needsPermission", "needsConfirmation"};
};

struct OrinLinkEndpoint {
  Uuid id;
  std::string displayName;
  std::string host;
  std::uint16_t port = 0;
  OrinLinkConnectionKind connectionKind = OrinLinkConnectionKind::manual;
  bool usesTLS = false;

  // "http(s)://host:port" without a path; absent when the host cannot stand in a URL.
  std::optional<std::string> baseURL() const;

  static OrinLinkEndpoint decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const OrinLinkEndpoint&) const = default;
};

struct OrinLinkGenerateRequest {
  Uuid id;
  std::optional<std::string> conversationId;
  std::string prompt;
  std::optional<std::string> model;
  std::optional<double> temperature;
  std::optional<bool> think;
  // A reference-date number on the wire; ISO 8601 text is refused.
  Date requestedAt;

  static OrinLinkGenerateRequest decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const OrinLinkGenerateRequest&) const = default;
};

struct OrinLinkError {
  std::string code;
  std::string message;

  static OrinLinkError decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const OrinLinkError&) const = default;
};

struct OrinLinkErrorResponse {
  OrinLinkError error;

  static OrinLinkErrorResponse make(std::string code, std::string message) {
    return {OrinLinkError{std::move(code), std::move(message)}};
  }

  static OrinLinkErrorResponse decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const OrinLinkErrorResponse&) const = default;
};

struct OrinToolCall {
  using Arguments = std::map<std::string, JSONValue, std::less<>>;

  Uuid id;
  std::string name;
  Arguments arguments;
  std::string userFacingSummary;
  double confidence = 0;

  // Forgiving, because the record is also built from model output: a bad id gets a fresh one,
  // "tool" stands in for a missing "name", and the other fields fall back to empty values.
  static OrinToolCall decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const OrinToolCall&) const = default;
};

struct OrinToolResult {
  Uuid callID;
  std::string name;
  OrinToolResultStatus status = OrinToolResultStatus::success;
  std::string userVisibleSummary;
  std::string modelContext;

  static OrinToolResult decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const OrinToolResult&) const = default;
};

struct OrinLinkResponse {
  Uuid id;
  std::optional<Uuid> requestId;
  OrinLinkStatus status = OrinLinkStatus::success;
  OrinLane lane = OrinLane::chat;
  std::string assistantMessage;
  std::optional<OrinToolCall> proposedToolCall;
  std::optional<OrinToolResult> toolResult;
  std::optional<OrinLinkError> error;

  static OrinLinkResponse decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const OrinLinkResponse&) const = default;
};

struct OrinLinkHealth {
  std::string status;
  std::string app;
  std::string version;
  std::string runtime;
  std::string activeModel;

  static OrinLinkHealth decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const OrinLinkHealth&) const = default;
};

struct OrinLinkStatusPayload {
  bool running = false;
  std::int64_t pairedDevices = 0;
  bool runtimeAvailable = false;
  std::string activeModel;
  std::uint16_t serverPort = 0;
  bool localNetworkEnabled = false;
  bool reliabilityModeEnabled = false;
  std::optional<std::string> edition;
  std::optional<std::vector<std::string>> capabilities;

  static OrinLinkStatusPayload decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const OrinLinkStatusPayload&) const = default;
};

}  // namespace orin
