#pragma once

#include <string>
#include <string_view>

#include "OrinLinkShared/Text.h"
#include "OrinLinkShared/ToolCallParser.h"

namespace orin::test {

// The removal rule at its most literal, quadratic on purpose: each removal can join its
// neighbours into a new tag, so every search starts from the top.
inline std::string naiveMarkupRemoval(std::string_view reply) {
  using OrinToolParser::closingTag;
  using OrinToolParser::openingTag;
  std::string text(reply);
  while (true) {
    const std::size_t open = text.find(openingTag);
    if (open == std::string::npos) break;
    const std::size_t close = text.find(closingTag, open + openingTag.size());
    if (close == std::string::npos) {
      text.erase(open);
      break;
    }
    text.erase(open, close + closingTag.size() - open);
  }
  return std::string(text::trimmed(text));
}

}  // namespace orin::test
