// The tool-call parser on a model reply. removingToolCallMarkup is held to the plain restart-from-
// the-top loop it must equal; the extracted call must survive encoding.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "OrinLinkShared/Assert.h"
#include "OrinLinkShared/Text.h"
#include "OrinLinkShared/ToolCallParser.h"

namespace {

namespace parser = orin::OrinToolParser;

// Quadratic on purpose; longer inputs skip it.
constexpr std::size_t referenceLimit = 1 << 16;

// Each removal can join its neighbours into a new tag, so every search starts from the top.
std::string referenceRemoval(std::string_view reply) {
  std::string text(reply);
  while (true) {
    const std::size_t open = text.find(parser::openingTag);
    if (open == std::string::npos) break;
    const std::size_t close = text.find(parser::closingTag, open + parser::openingTag.size());
    if (close == std::string::npos) {
      text.erase(open);
      break;
    }
    text.erase(open, close + parser::closingTag.size() - open);
  }
  return std::string(orin::text::trimmed(text));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view reply(reinterpret_cast<const char*>(data), size);

  if (const auto call = parser::extractToolCall(reply)) {
    const std::string encoded = orin::encodeJSON(*call);
    ORIN_ASSERT(orin::decodeJSON<orin::OrinToolCall>(encoded) == *call,
                "an extracted tool call does not survive encoding");
  }

  const std::string shown = parser::removingToolCallMarkup(reply);
  ORIN_ASSERT(shown.find(parser::openingTag) == std::string::npos,
              "an opening tag reaches the user");
  if (size <= referenceLimit) {
    ORIN_ASSERT(shown == referenceRemoval(reply), "markup removal differs from the reference");
  }
  return 0;
}
