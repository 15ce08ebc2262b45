#include "OrinLinkShared/AIRecords.h"

namespace orin {
namespace {

using json::ObjectReader;
using json::ObjectWriter;

// Characters that may stand in a URL host (RFC 3986 reg-name and IPv4), plus '%' escapes.
bool isHostCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("-._~!$&'()*+,;=%").find(c) != std::string_view::npos ||
         static_cast<unsigned char>(c) >= 0x80;
}

bool isIPv6Literal(std::string_view host) {
  if (host.find(':') == std::string_view::npos) return false;
  for (const char c : host) {
    const bool hex = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (!hex && c != ':' && c != '.') return false;
  }
  return true;
}

// A member that may be absent or malformed; either way it reads as nothing.
template <class T>
std::optional<T> forgiving(const ObjectReader& reader, std::string_view key) {
  try {
    return reader.optional<T>(key);
  } catch (const DecodingError&) {
    return std::nullopt;
  }
}

}  // namespace

std::optional<std::string> OrinLinkEndpoint::baseURL() const {
  if (host.empty()) return std::nullopt;
  std::string authority;
  if (isIPv6Literal(host)) {
    authority = "[" + host + "]";
  } else {
    for (const char c : host) {
      if (!isHostCharacter(c)) return std::nullopt;
    }
    authority = host;
  }
  return std::string(usesTLS ? "https" : "http") + "://" + authority + ":" + std::to_string(port);
}

OrinLinkEndpoint OrinLinkEndpoint::decode(const json::Value& value, const json::CodingPath& path) {
  const ObjectReader r(value, path);
  return {r.required<Uuid>("id"),
          r.required<std::string>("displayName"),
          r.required<std::string>("host"),
          r.required<std::uint16_t>("port"),
          r.required<OrinLinkConnectionKind>("connectionKind"),
          r.required<bool>("usesTLS")};
}

json::Ordered OrinLinkEndpoint::encode() const {
  return ObjectWriter()
      .set("id", id)
      .set("displayName", displayName)
      .set("host", host)
      .set("port", port)
      .set("connectionKind", connectionKind)
      .set("usesTLS", usesTLS)
      .take();
}

OrinLinkGenerateRequest OrinLinkGenerateRequest::decode(const json::Value& value,
                                                        const json::CodingPath& path) {
  const ObjectReader r(value, path);
  return {r.required<Uuid>("id"),
          r.optional<std::string>("conversationId"),
          r.required<std::string>("prompt"),
          r.optional<std::string>("model"),
          r.optional<double>("temperature"),
          r.optional<bool>("think"),
          r.required<Date>("requestedAt")};
}

json::Ordered OrinLinkGenerateRequest::encode() const {
  return ObjectWriter()
      .set("id", id)
      .set("conversationId", conversationId)
      .set("prompt", prompt)
      .set("model", model)
      .set("temperature", temperature)
      .set("think", think)
      .set("requestedAt", requestedAt)
      .take();
}

OrinLinkError OrinLinkError::decode(const json::Value& value, const json::CodingPath& path) {
  const ObjectReader r(value, path);
  return {r.required<std::string>("code"), r.required<std::string>("message")};
}

json::Ordered OrinLinkError::encode() const {
  return ObjectWriter().set("code", code).set("message", message).take();
}

OrinLinkErrorResponse OrinLinkErrorResponse::decode(const json::Value& value,
                                                    const json::CodingPath& path) {
  const ObjectReader r(value, path);
  return {r.required<OrinLinkError>("error")};
}

json::Ordered OrinLinkErrorResponse::encode() const {
  return ObjectWriter().set("error", error).take();
}

OrinToolCall OrinToolCall::decode(const json::Value& value, const json::CodingPath& path) {
  const ObjectReader r(value, path);
  OrinToolCall call;
  auto id = forgiving<Uuid>(r, "id");
  call.id = id ? *id : Uuid::random();
  // A present "name" of the wrong kind is an error; only its absence falls back to "tool".
  if (auto name = r.optional<std::string>("name")) {
    call.name = std::move(*name);
  } else {
    call.name = r.required<std::string>("tool");
  }
  call.arguments = forgiving<Arguments>(r, "arguments").value_or(Arguments{});
  call.userFacingSummary = forgiving<std::string>(r, "userFacingSummary").value_or("");
  call.confidence = forgiving<double>(r, "confidence").value_or(0);
  return call;
}

json::Ordered OrinToolCall::encode() const {
  return ObjectWriter()
      .set("id", id)
      .set("name", name)
      .set("arguments", arguments)
      .set("userFacingSummary", userFacingSummary)
      .set("confidence", confidence)
      .take();
}

OrinToolResult OrinToolResult::decode(const json::Value& value, const json::CodingPath& path) {
  const ObjectReader r(value, path);
  return {r.required<Uuid>("callID"), r.required<std::string>("name"),
          r.required<OrinToolResultStatus>("status"), r.required<std::string>("userVisibleSummary"),
          r.required<std::string>("modelContext")};
}

json::Ordered OrinToolResult::encode() const {
  return ObjectWriter()
      .set("callID", callID)
      .set("name", name)
      .set("status", status)
      .set("userVisibleSummary", userVisibleSummary)
      .set("modelContext", modelContext)
      .take();
}

OrinLinkResponse OrinLinkResponse::decode(const json::Value& value, const json::CodingPath& path) {
  const ObjectReader r(value, path);
  return {r.required<Uuid>("id"),
          r.optional<Uuid>("requestId"),
          r.required<OrinLinkStatus>("status"),
          r.required<OrinLane>("lane"),
          r.required<std::string>("assistantMessage"),
          r.optional<OrinToolCall>("proposedToolCall"),
          r.optional<OrinToolResult>("toolResult"),
          r.optional<OrinLinkError>("error")};
}

json::Ordered OrinLinkResponse::encode() const {
  return ObjectWriter()
      .set("id", id)
      .set("requestId", requestId)
      .set("status", status)
      .set("lane", lane)
      .set("assistantMessage", assistantMessage)
      .set("proposedToolCall", proposedToolCall)
      .set("toolResult", toolResult)
      .set("error", error)
      .take();
}

OrinLinkHealth OrinLinkHealth::decode(const json::Value& value, const json::CodingPath& path) {
  const ObjectReader r(value, path);
  return {r.required<std::string>("status"), r.required<std::string>("app"),
          r.required<std::string>("version"), r.required<std::string>("runtime"),
          r.required<std::string>("activeModel")};
}

json::Ordered OrinLinkHealth::encode() const {
  return ObjectWriter()
      .set("status", status)
      .set("app", app)
      .set("version", version)
      .set("runtime", runtime)
      .set("activeModel", activeModel)
      .take();
}

OrinLinkStatusPayload OrinLinkStatusPayload::decode(const json::Value& value,
                                                    const json::CodingPath& path) {
  const ObjectReader r(value, path);
  return {r.required<bool>("running"),
          r.required<std::int64_t>("pairedDevices"),
          r.required<bool>("runtimeAvailable"),
          r.required<std::string>("activeModel"),
          r.required<std::uint16_t>("serverPort"),
          r.required<bool>("localNetworkEnabled"),
          r.required<bool>("reliabilityModeEnabled"),
          r.optional<std::string>("edition"),
          r.optional<std::vector<std::string>>("capabilities")};
}

json::Ordered OrinLinkStatusPayload::encode() const {
  return ObjectWriter()
      .set("running", running)
      .set("pairedDevices", pairedDevices)
      .set("runtimeAvailable", runtimeAvailable)
      .set("activeModel", activeModel)
      .set("serverPort", serverPort)
      .set("localNetworkEnabled", localNetworkEnabled)
      .set("reliabilityModeEnabled", reliabilityModeEnabled)
      .set("edition", edition)
      .set("capabilities", capabilities)
      .take();
}

}  // namespace orin
