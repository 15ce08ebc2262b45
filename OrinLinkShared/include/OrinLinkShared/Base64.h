#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orin::base64 {

// Standard alphabet with '=' padding.
std::string encode(std::span<const std::uint8_t> bytes);
// Strict: the length must be a multiple of four, padding only at the end, no other characters.
std::optional<std::vector<std::uint8_t>> decode(std::string_view text);

}  // namespace orin::base64
