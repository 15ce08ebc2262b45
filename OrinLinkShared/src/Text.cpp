#include "OrinLinkShared/Text.h"

#include <cstdint>

namespace orin::text {
namespace {

bool isWhiteSpaceOrNewline(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
         c == 0x3000;
}

// Decodes the scalar starting at `pos`; returns its length, or 0 when the bytes are not UTF-8.
std::size_t decodeAt(std::string_view s, std::size_t pos, char32_t& out) {
  const auto b0 = static_cast<unsigned char>(s[pos]);
  std::size_t length = 0;
  char32_t c = 0;
  char32_t minimum = 0;
  if (b0 < 0x80) {
    out = b0;
    return 1;
  } else if ((b0 & 0xE0) == 0xC0) {
    length = 2, c = b0 & 0x1F, minimum = 0x80;
  } else if ((b0 & 0xF0) == 0xE0) {
    length = 3, c = b0 & 0x0F, minimum = 0x800;
  } else if ((b0 & 0xF8) == 0xF0) {
    length = 4, c = b0 & 0x07, minimum = 0x10000;
  } else {
    return 0;
  }
  if (pos + length > s.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    const auto b = static_cast<unsigned char>(s[pos + i]);
    if ((b & 0xC0) != 0x80) return 0;
    c = c << 6 | (b & 0x3F);
  }
  if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return 0;
  out = c;
  return length;
}

// Start of the scalar that ends just before `end` (UTF-8 continuation bytes are 10xxxxxx).
std::size_t scalarStartBefore(std::string_view s, std::size_t end) {
  std::size_t start = end - 1;
  while (start > 0 && end - start < 4 && (static_cast<unsigned char>(s[start]) & 0xC0) == 0x80) {
    --start;
  }
  return start;
}

}  // namespace

std::string_view trimmed(std::string_view text) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    char32_t c = 0;
    const std::size_t length = decodeAt(text, begin, c);
    if (length == 0 || !isWhiteSpaceOrNewline(c)) break;
    begin += length;
  }
  std::size_t end = text.size();
  while (end > begin) {
    const std::size_t start = scalarStartBefore(text, end);
    char32_t c = 0;
    if (start < begin || decodeAt(text, start, c) != end - start || !isWhiteSpaceOrNewline(c)) {
      break;
    }
    end = start;
  }
  return text.substr(begin, end - begin);
}

bool isValidUTF8(std::string_view bytes) {
  std::size_t pos = 0;
  while (pos < bytes.size()) {
    // Plain ASCII dominates request heads; skip it eight bytes at a time.
    while (pos + 8 <= bytes.size()) {
      std::uint64_t word = 0;
      for (std::size_t i = 0; i < 8; ++i) {
        word |= std::uint64_t{static_cast<unsigned char>(bytes[pos + i])} << (8 * i);
      }
      if (word & 0x8080808080808080ULL) break;
      pos += 8;
    }
    if (pos >= bytes.size()) break;
    char32_t c = 0;
    const std::size_t length = decodeAt(bytes, pos, c);
    if (length == 0) return false;
    pos += length;
  }
  return true;
}

std::string asciiLowercased(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

}  // namespace orin::text
