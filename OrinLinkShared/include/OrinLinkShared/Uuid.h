#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace orin {

// A 128-bit identifier written as the canonical 36-character upper-case hyphenated text.
class Uuid {
 public:
  using Bytes = std::array<std::uint8_t, 16>;

  constexpr Uuid() = default;
  constexpr explicit Uuid(const Bytes& bytes) : bytes_(bytes) {}

  // A random (version 4) identifier.
  static Uuid random();
  // Accepts hexadecimal digits of either case in the 8-4-4-4-12 form; nothing else.
  static std::optional<Uuid> parse(std::string_view text);

  std::string string() const;
  const Bytes& bytes() const { return bytes_; }

  auto operator<=>(const Uuid&) const = default;

 private:
  Bytes bytes_{};
};

}  // namespace orin
