#include "OrinLinkShared/Uuid.h"

#include <random>

namespace orin {
namespace {

constexpr bool isHyphenPosition(std::size_t i) {
  return i == 8 || i == 13 || i == 18 || i == 23;
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

Uuid Uuid::random() {
  // Identifiers must be unique, not secret. Drawing each one from random_device costs tens of
  // microseconds (it may use RDSEED), so a per-thread generator is seeded from it once.
  thread_local std::mt19937_64 generator = [] {
    std::random_device device;
    std::seed_seq seed{device(), device(), device(), device(),
                       device(), device(), device(), device()};
    return std::mt19937_64(seed);
  }();
  Bytes bytes{};
  for (std::size_t i = 0; i < bytes.size(); i += 8) {
    const std::uint64_t word = generator();
    for (std::size_t j = 0; j < 8; ++j) {
      bytes[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
    }
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);
  return Uuid(bytes);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  Bytes bytes{};
  std::size_t out = 0;
  for (std::size_t i = 0; i < text.size();) {
    if (isHyphenPosition(i)) {
      if (text[i] != '-') return std::nullopt;
      ++i;
      continue;
    }
    const int high = hexDigit(text[i]);
    const int low = hexDigit(text[i + 1]);
    if (high < 0 || low < 0 || isHyphenPosition(i + 1)) return std::nullopt;
    bytes[out++] = static_cast<std::uint8_t>(high << 4 | low);
    i += 2;
  }
  return Uuid(bytes);
}

std::string Uuid::string() const {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes_.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(digits[bytes_[i] >> 4]);
    text.push_back(digits[bytes_[i] & 0x0F]);
  }
  return text;
}

}  // namespace orin
