#include "OrinLinkShared/Pairing.h"

namespace orin {
namespace {

Date decodeISO8601(const json::ObjectReader& reader, std::string_view key) {
  const std::string text = reader.required<std::string>(key);
  if (auto date = Date::parseISO8601(text)) return *date;
  json::throwDataCorrupted(reader.path().child(key),
                           "Expected date string to be ISO8601-formatted.");
}

}  // namespace

PairRequest PairRequest::decode(const json::Value& value, const json::CodingPath& path) {
  const json::ObjectReader r(value, path);
  return {r.required<std::string>("pairingCode"), r.required<std::string>("deviceId"),
          r.required<std::string>("displayName")};
}

json::Ordered PairRequest::encode() const {
  return json::ObjectWriter()
      .set("pairingCode", pairingCode)
      .set("deviceId", deviceId)
      .set("displayName", displayName)
      .take();
}

PairResponse PairResponse::decode(const json::Value& value, const json::CodingPath& path) {
  const json::ObjectReader r(value, path);
  return {r.required<std::string>("deviceId"), r.required<std::string>("token")};
}

json::Ordered PairResponse::encode() const {
  return json::ObjectWriter().set("deviceId", deviceId).set("token", token).take();
}

std::string PairingPayload::text() const {
  try {
    return encodeJSON(*this, json::Format::prettySortedKeys);
  } catch (const EncodingError&) {
    return "{}";
  }
}

PairingPayload PairingPayload::decode(const json::Value& value, const json::CodingPath& path) {
  const json::ObjectReader r(value, path);
  return {r.required<std::string>("app"),
          r.required<std::int64_t>("version"),
          r.required<std::string>("pairingCode"),
          decodeISO8601(r, "expiresAt"),
          r.required<std::uint16_t>("port"),
          r.required<std::vector<OrinLinkEndpoint>>("endpoints")};
}

json::Ordered PairingPayload::encode() const {
  return json::ObjectWriter()
      .set("app", app)
      .set("version", version)
      .set("pairingCode", pairingCode)
      .set("expiresAt", expiresAt.iso8601())
      .set("port", port)
      .set("endpoints", endpoints)
      .take();
}

}  // namespace orin
