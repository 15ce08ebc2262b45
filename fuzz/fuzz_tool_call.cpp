// The tool-call parser on a model reply. removingToolCallMarkup is held to the plain restart-from-
// the-top loop it must equal; the extracted call must survive encoding.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "OrinLinkShared/Assert.h"
#include "OrinLinkShared/ToolCallParser.h"

#include "tests/shared/NaiveMarkupRemoval.h"

namespace {

namespace parser = orin::OrinToolParser;

// Quadratic on purpose; longer inputs skip it.
constexpr std::size_t referenceLimit = 1 << 16;

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
    ORIN_ASSERT(shown == orin::test::naiveMarkupRemoval(reply),
                "markup removal differs from the reference");
  }
  return 0;
}
