#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <nlohmann/json.hpp>

#include "OrinLinkShared/Date.h"
#include "OrinLinkShared/Enum.h"
#include "OrinLinkShared/Error.h"
#include "OrinLinkShared/Uuid.h"

namespace orin {

using ByteString = std::vector<std::uint8_t>;

class EncodingError : public Error {
 public:
  using Error::Error;
};

namespace json {

// Decoding reads a sorted-map document (duplicate-heavy or huge objects stay O(n log n));
// encoding builds an insertion-ordered one so keys come out in declaration order.
using Value = nlohmann::json;
using Ordered = nlohmann::ordered_json;

// Deeper documents are refused before they are parsed, so nothing downstream recurses unbounded.
inline constexpr std::size_t maxNestingDepth = 512;

// Where a decoder stands in a document; a chain on the stack, turned into text only on failure.
struct CodingPath {
  const CodingPath* parent = nullptr;
  std::string_view key;
  std::size_t index = 0;
  bool isIndex = false;

  CodingPath child(std::string_view k) const { return CodingPath{this, k, 0, false}; }
  CodingPath child(std::size_t i) const { return CodingPath{this, {}, i, true}; }
  std::string string() const;
};

Value parse(std::string_view text);

enum class Format { compact, prettySortedKeys };
// Writes '/' as "\/" and integral numbers without a fraction, as the platform's encoder does.
// Throws EncodingError when a string is not valid UTF-8.
std::string serialize(const Ordered& value, Format format = Format::compact);

// A JSON number for a double: integral values that fit exactly are written as integers.
Ordered number(double value);

[[noreturn]] void throwTypeMismatch(const CodingPath& path, std::string_view expected,
                                    const Value& found);
[[noreturn]] void throwDataCorrupted(const CodingPath& path, std::string debugDescription);

template <class T, class Enable = void>
struct Codec {
  static T decode(const Value& value, const CodingPath& path) { return T::decode(value, path); }
  static Ordered encode(const T& value) { return value.encode(); }
};

template <>
struct Codec<std::string> {
  static std::string decode(const Value& value, const CodingPath& path);
  static Ordered encode(const std::string& value) { return value; }
};

template <>
struct Codec<bool> {
  static bool decode(const Value& value, const CodingPath& path);
  static Ordered encode(bool value) { return value; }
};

template <>
struct Codec<double> {
  static double decode(const Value& value, const CodingPath& path);
  static Ordered encode(double value) { return number(value); }
};

std::int64_t decodeInteger(const Value& value, const CodingPath& path, std::int64_t min,
                           std::int64_t max);

template <class I>
struct Codec<I, std::enable_if_t<std::is_integral_v<I> && !std::is_same_v<I, bool>>> {
  static I decode(const Value& value, const CodingPath& path) {
    static_assert(sizeof(I) < 8 || std::is_signed_v<I>, "64-bit unsigned is not on the wire");
    return static_cast<I>(
        decodeInteger(value, path, std::numeric_limits<I>::min(), std::numeric_limits<I>::max()));
  }
  static Ordered encode(I value) { return value; }
};

template <>
struct Codec<Uuid> {
  static Uuid decode(const Value& value, const CodingPath& path);
  static Ordered encode(const Uuid& value) { return value.string(); }
};

// The reference-date number (seconds since 2001-01-01), the default date form on the wire.
template <>
struct Codec<Date> {
  static Date decode(const Value& value, const CodingPath& path);
  static Ordered encode(const Date& value) { return number(value.secondsSinceReferenceDate); }
};

// Byte strings travel as standard base64 text.
template <>
struct Codec<ByteString> {
  static ByteString decode(const Value& value, const CodingPath& path);
  static Ordered encode(const ByteString& value);
};

template <StringEnum E>
struct Codec<E> {
  static E decode(const Value& value, const CodingPath& path) {
    const std::string text = Codec<std::string>::decode(value, path);
    if (auto e = enumFromRawValue<E>(text)) return *e;
    throwDataCorrupted(path, "Cannot initialize from invalid String value " + text);
  }
  static Ordered encode(E value) { return std::string(rawValue(value)); }
};

template <class T>
struct Codec<std::vector<T>, std::enable_if_t<!std::is_same_v<T, std::uint8_t>>> {
  static std::vector<T> decode(const Value& value, const CodingPath& path) {
    if (!value.is_array()) throwTypeMismatch(path, "Array", value);
    std::vector<T> out;
    out.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
      out.push_back(Codec<T>::decode(value[i], path.child(i)));
    }
    return out;
  }
  static Ordered encode(const std::vector<T>& values) {
    Ordered out = Ordered::array();
    for (const auto& v : values)
      out.push_back(Codec<T>::encode(v));
    return out;
  }
};

template <class T>
struct Codec<std::map<std::string, T, std::less<>>> {
  using Map = std::map<std::string, T, std::less<>>;
  static Map decode(const Value& value, const CodingPath& path) {
    if (!value.is_object()) throwTypeMismatch(path, "Dictionary", value);
    Map out;
    for (const auto& [key, member] : value.items()) {
      out.emplace(key, Codec<T>::decode(member, path.child(key)));
    }
    return out;
  }
  static Ordered encode(const Map& values) {
    Ordered out = Ordered::object();
    for (const auto& [key, v] : values)
      out[key] = Codec<T>::encode(v);
    return out;
  }
};

// Reads the members of one JSON object. Absent and null members are the same ("no value").
class ObjectReader {
 public:
  ObjectReader(const Value& value, const CodingPath& path);

  const Value* find(std::string_view key) const;
  const CodingPath& path() const { return path_; }

  template <class T>
  T required(std::string_view key) const {
    const Value* member = find(key);
    if (member == nullptr) throwMissing(key);
    return Codec<T>::decode(*member, path_.child(key));
  }

  template <class T>
  std::optional<T> optional(std::string_view key) const {
    const Value* member = find(key);
    if (member == nullptr) return std::nullopt;
    return Codec<T>::decode(*member, path_.child(key));
  }

 private:
  [[noreturn]] void throwMissing(std::string_view key) const;

  const Value& value_;
  const CodingPath& path_;
};

// Builds one JSON object; optional members without a value are left out, never null.
class ObjectWriter {
 public:
  template <class T>
  ObjectWriter& set(std::string_view key, const T& value) {
    object_[std::string(key)] = Codec<T>::encode(value);
    return *this;
  }

  template <class T>
  ObjectWriter& set(std::string_view key, const std::optional<T>& value) {
    if (value) set(key, *value);
    return *this;
  }

  Ordered take() { return std::move(object_); }

 private:
  Ordered object_ = Ordered::object();
};

}  // namespace json

template <class T>
T decodeJSON(std::string_view text) {
  const json::Value document = json::parse(text);
  return json::Codec<T>::decode(document, json::CodingPath{});
}

template <class T>
std::string encodeJSON(const T& value, json::Format format = json::Format::compact) {
  return json::serialize(json::Codec<T>::encode(value), format);
}

}  // namespace orin
