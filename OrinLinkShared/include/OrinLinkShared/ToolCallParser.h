#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "OrinLinkShared/AIRecords.h"

namespace orin::OrinToolParser {

inline constexpr std::string_view openingTag = "<orin_tool_call>";
inline constexpr std::string_view closingTag = "</orin_tool_call>";

// The call proposed in the first complete block, if its JSON decodes.
std::optional<OrinToolCall> extractToolCall(std::string_view text);

// The text with every block removed (an unfinished block runs to the end), trimmed.
std::string removingToolCallMarkup(std::string_view text);

}  // namespace orin::OrinToolParser
