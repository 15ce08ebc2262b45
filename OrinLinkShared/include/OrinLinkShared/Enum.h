#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

namespace orin {

// Raw texts of a string enumeration, listed in the order of its cases (which start at 0).
template <class E>
struct EnumTraits;

template <class E>
concept StringEnum = requires {
  EnumTraits<E>::rawValues;
};

template <StringEnum E>
constexpr std::string_view rawValue(E value) {
  return EnumTraits<E>::rawValues[static_cast<std::size_t>(value)];
}

template <StringEnum E>
constexpr std::optional<E> enumFromRawValue(std::string_view text) {
  const auto& names = EnumTraits<E>::rawValues;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (names[i] == text) return static_cast<E>(i);
  }
  return std::nullopt;
}

template <StringEnum E>
constexpr auto allCases() {
  std::array<E, EnumTraits<E>::rawValues.size()> cases{};
  for (std::size_t i = 0; i < cases.size(); ++i)
    cases[i] = static_cast<E>(i);
  return cases;
}

}  // namespace orin
