#pragma once

#include <string>
#include <string_view>

namespace orin::text {

// Trims Unicode white space and line ends (categories Zs, Zl, Zp, U+0009-U+000D and U+0085)
// from both ends of UTF-8 text.
std::string_view trimmed(std::string_view text);

bool isValidUTF8(std::string_view bytes);

std::string asciiLowercased(std::string_view text);

}  // namespace orin::text
