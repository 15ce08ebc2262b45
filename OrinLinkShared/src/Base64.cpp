#include "OrinLinkShared/Base64.h"

#include <array>

namespace orin::base64 {
namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> makeDecodeTable() {
  std::array<std::int8_t, 256> table{};
  table.fill(-1);
  for (std::int8_t i = 0; i < 64; ++i) {
    table[static_cast<unsigned char>(alphabet[i])] = i;
  }
  return table;
}

constexpr auto decodeTable = makeDecodeTable();

}  // namespace

std::string encode(std::span<const std::uint8_t> bytes) {
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t n = std::uint32_t{bytes[i]} << 16 | std::uint32_t{bytes[i + 1]} << 8 |
                            std::uint32_t{bytes[i + 2]};
    text.push_back(alphabet[n >> 18 & 63]);
    text.push_back(alphabet[n >> 12 & 63]);
    text.push_back(alphabet[n >> 6 & 63]);
    text.push_back(alphabet[n & 63]);
  }
  const std::size_t rest = bytes.size() - i;
  if (rest > 0) {
    std::uint32_t n = std::uint32_t{bytes[i]} << 16;
    if (rest == 2) n |= std::uint32_t{bytes[i + 1]} << 8;
    text.push_back(alphabet[n >> 18 & 63]);
    text.push_back(alphabet[n >> 12 & 63]);
    text.push_back(rest == 2 ? alphabet[n >> 6 & 63] : '=');
    text.push_back('=');
  }
  return text;
}

std::optional<std::vector<std::uint8_t>> decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  if (!text.empty() && text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
  std::vector<std::uint8_t> bytes;
  bytes.reserve(text.size() / 4 * 3);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    std::uint32_t n = 0;
    for (std::size_t j = 0; j < 4; ++j) {
      const auto c = static_cast<unsigned char>(text[i + j]);
      if (c == '=' && last && j >= 4 - padding) {
        n <<= 6;
        continue;
      }
      const std::int8_t value = decodeTable[c];
      if (value < 0) return std::nullopt;
      n = n << 6 | static_cast<std::uint32_t>(value);
    }
    const std::size_t produced = last ? 3 - padding : 3;
    for (std::size_t j = 0; j < produced; ++j) {
      bytes.push_back(static_cast<std::uint8_t>(n >> (16 - 8 * j)));
    }
  }
  return bytes;
}

}  // namespace orin::base64
