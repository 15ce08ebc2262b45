// HTTPParser on the whole input, then HTTPRequestReader fed the same bytes in pieces and held to
// what re-parsing the whole buffer after every read would decide.
//
// The split sizes come from FuzzedDataProvider, which reads integers from the input's end; the
// reader still receives every byte, so a seed file is simply a request as it travels.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>
#include <optional>
#include <string>
#include <string_view>

#include "OrinLink/http/HTTPParser.h"
#include "OrinLinkShared/Assert.h"
#include "OrinLinkShared/Text.h"

namespace {

using orin::HTTPRequest;
using orin::HTTPRequestReader;
using Status = HTTPRequestReader::Status;

constexpr std::string_view separator = "\r\n\r\n";
// Beyond this many pieces the rest goes in one, which keeps the quadratic oracle cheap.
constexpr int maxPieces = 64;
// The one control value that may also pad the stream to within a few bytes of the reader's cap.
constexpr std::uint8_t padToCap = 0xFF;

// A padded run costs milliseconds. Gating it on a hash of the whole input as well keeps the
// mutants of a padded input from padding again, so padded runs stay rare.
bool hashAllowsPadding(std::string_view input) {
  std::uint32_t hash = 2166136261u;
  for (const char c : input)
    hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
  return hash % 32 == 0;
}

void checkParsed(const HTTPRequest& request, std::string_view input) {
  ORIN_ASSERT(!request.method.empty() && !request.path.empty(), "empty method or path");
  ORIN_ASSERT(request.body == input.substr(input.find(separator) + separator.size()),
              "body is not everything after the first blank line");
  for (const auto& [name, value] : request.headers) {
    ORIN_ASSERT(orin::text::asciiLowercased(name) == name, "header name not lower-cased");
    ORIN_ASSERT(orin::text::trimmed(name) == name && orin::text::trimmed(value) == value,
                "header name or value not trimmed");
  }
  if (const auto token = request.bearerToken()) {
    const std::string& authorization = request.headers.at("authorization");
    ORIN_ASSERT(authorization.size() == token->size() + 7 && authorization.ends_with(*token),
                "bearer token is not the value after its scheme");
  }
}

// What a server that re-parses its whole buffer after every read decides.
Status oracle(std::string_view received, std::optional<HTTPRequest>& request) {
  request.reset();
  if (received.size() > HTTPRequestReader::maxBufferedBytes) return Status::tooLarge;
  request = orin::HTTPParser::parse(received);
  return request && orin::hasCompleteBody(*request, received) ? Status::complete : Status::needMore;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  if (const auto request = orin::HTTPParser::parse(input)) {
    checkParsed(*request, input);
  }

  FuzzedDataProvider provider(data, size);
  const auto control = provider.ConsumeIntegral<std::uint8_t>();
  const std::size_t maxPiece = std::size_t{1} << (control & 7);
  const bool padMode =
      control == padToCap && size < HTTPRequestReader::maxBufferedBytes && hashAllowsPadding(input);
  bool padPending = padMode;
  std::size_t padAt = 0;
  std::size_t padLength = 0;
  char padByte = 0;
  if (padMode) {
    padAt = provider.ConsumeIntegralInRange<std::size_t>(0, size);
    padByte = provider.ConsumeIntegral<char>();
    // Lands the total between one byte under the cap and two over it.
    padLength = HTTPRequestReader::maxBufferedBytes - 1 - size +
                provider.ConsumeIntegralInRange<std::size_t>(0, 3);
  }

  // Kept between runs, so padded runs reuse their megabytes instead of faulting them in afresh.
  static std::string received;
  received.clear();
  HTTPRequestReader reader;
  std::optional<HTTPRequest> expected;
  std::size_t offset = 0;
  for (int pieces = 0; offset < size || padPending; ++pieces) {
    const std::size_t before = received.size();
    if (padPending && offset == padAt) {
      received.append(padLength, padByte);
      padPending = false;
    } else {
      // A padded run is slow, so it makes three appends only: before, padding, after.
      std::size_t length = padPending ? padAt - offset : size - offset;
      if (!padMode && pieces < maxPieces && provider.remaining_bytes() > 0) {
        length = std::min(length, provider.ConsumeIntegralInRange<std::size_t>(1, maxPiece));
      }
      received.append(input.substr(offset, length));
      offset += length;
    }
    const Status status = reader.append(std::string_view(received).substr(before));
    ORIN_ASSERT(status == reader.status(), "append() and status() disagree");
    ORIN_ASSERT(status == oracle(received, expected), "reader disagrees with a whole re-parse");
    if (status != Status::tooLarge) {
      ORIN_ASSERT(reader.bufferedBytes() == received.size(), "buffered byte count is off");
    }
  }
  if (reader.status() == Status::complete) {
    ORIN_ASSERT(reader.take() == *expected, "taken request differs from a whole re-parse");
  }
  return 0;
}
