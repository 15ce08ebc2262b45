#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orin {

// The modules of a QR code for the text, dark = true, without the quiet zone.
std::optional<std::vector<std::vector<bool>>> qrModules(std::string_view text);

// The code drawn with half-block characters, two module rows per line, with a quiet zone, light
// on dark as terminals show best. Empty when the text cannot be encoded.
std::string qrForTerminal(std::string_view text);

}  // namespace orin
