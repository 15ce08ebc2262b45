#include "OrinLinkShared/ToolCallParser.h"

#include <algorithm>

#include "OrinLinkShared/Text.h"

namespace orin::OrinToolParser {

std::optional<OrinToolCall> extractToolCall(std::string_view text) {
  const std::size_t open = text.find(openingTag);
  if (open == std::string_view::npos) return std::nullopt;
  const std::size_t bodyStart = open + openingTag.size();
  const std::size_t close = text.find(closingTag, bodyStart);
  if (close == std::string_view::npos) return std::nullopt;
  try {
    return decodeJSON<OrinToolCall>(text::trimmed(text.substr(bodyStart, close - bodyStart)));
  } catch (const DecodingError&) {
    return std::nullopt;
  }
}

std::string removingToolCallMarkup(std::string_view text) {
  // The text is `kept` followed by `rest`. Removing a block can join its neighbours into a new
  // opening tag, so each search also looks across the seam; `kept` itself never holds a tag.
  std::string kept;
  kept.reserve(text.size());
  std::string_view rest = text;
  while (true) {
    std::size_t openInKept = std::string::npos;
    std::size_t tagEndInRest = 0;
    const std::size_t tailLength = std::min(kept.size(), openingTag.size() - 1);
    if (tailLength > 0) {
      std::string seam = kept.substr(kept.size() - tailLength);
      seam.append(rest.substr(0, openingTag.size() - 1));
      const std::size_t at = seam.find(openingTag);
      if (at != std::string::npos && at < tailLength) {
        openInKept = kept.size() - tailLength + at;
        tagEndInRest = at + openingTag.size() - tailLength;
      }
    }
    if (openInKept == std::string::npos) {
      const std::size_t at = rest.find(openingTag);
      if (at == std::string_view::npos) {
        kept.append(rest);
        break;
      }
      kept.append(rest.substr(0, at));
      openInKept = kept.size();
      tagEndInRest = at + openingTag.size();
    }
    kept.resize(openInKept);
    const std::size_t close = rest.find(closingTag, tagEndInRest);
    if (close == std::string_view::npos) break;
    rest.remove_prefix(close + closingTag.size());
  }
  return std::string(text::trimmed(kept));
}

}  // namespace orin::OrinToolParser
