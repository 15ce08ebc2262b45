// Every AI record and JSONValue decoded from the input. Only DecodingError is an acceptable
// failure; whatever decodes must encode, decode to an equal value and encode to the same text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "OrinLinkShared/AIRecords.h"
#include "OrinLinkShared/Assert.h"
#include "OrinLinkShared/JSONValue.h"

namespace {

template <class T>
bool roundTrips(std::string_view text, T& value) {
  try {
    value = orin::decodeJSON<T>(text);
  } catch (const orin::DecodingError&) {
    return false;
  }
  // A tool call's fresh id (for a missing or bad one) is part of the value from here on.
  const std::string encoded = orin::encodeJSON(value);
  const T again = orin::decodeJSON<T>(encoded);
  ORIN_ASSERT(again == value, "a decoded record does not survive encoding");
  ORIN_ASSERT(orin::encodeJSON(again) == encoded, "encoding the same record changed");
  return true;
}

template <class T>
void tryRecord(std::string_view text) {
  T value;
  roundTrips(text, value);
}

void tryEndpoint(std::string_view text) {
  orin::OrinLinkEndpoint endpoint;
  if (!roundTrips(text, endpoint)) return;
  if (const auto url = endpoint.baseURL()) {
    const std::string scheme = endpoint.usesTLS ? "https://" : "http://";
    ORIN_ASSERT(url->starts_with(scheme) && url->ends_with(":" + std::to_string(endpoint.port)),
                "base URL has the wrong scheme or port");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  // Every JSON document is a JSONValue, so a failure here is a parse failure for all records.
  orin::JSONValue value;
  if (!roundTrips(text, value)) return 0;

  tryEndpoint(text);
  tryRecord<orin::OrinLinkGenerateRequest>(text);
  tryRecord<orin::OrinLinkError>(text);
  tryRecord<orin::OrinLinkErrorResponse>(text);
  tryRecord<orin::OrinToolCall>(text);
  tryRecord<orin::OrinToolResult>(text);
  tryRecord<orin::OrinLinkResponse>(text);
  tryRecord<orin::OrinLinkHealth>(text);
  tryRecord<orin::OrinLinkStatusPayload>(text);
  return 0;
}
