#include "OrinLinkShared/JSONCoding.h"

#include <cmath>

#include "OrinLinkShared/Base64.h"

namespace orin::json {
namespace {

using Kind = DecodingError::Kind;

// Nesting depth outside strings; a linear scan that never allocates.
bool exceedsNestingDepth(std::string_view text) {
  std::size_t depth = 0;
  bool inString = false;
  bool escaped = false;
  for (const char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    switch (c) {
      case '"':
        inString = true;
        break;
      case '[':
      case '{':
        if (++depth > maxNestingDepth) return true;
        break;
      case ']':
      case '}':
        if (depth > 0) --depth;
        break;
      default:
        break;
    }
  }
  return false;
}

std::string kindName(const Value& value) {
  switch (value.type()) {
    case Value::value_t::null:
      return "null";
    case Value::value_t::boolean:
      return "a boolean";
    case Value::value_t::number_integer:
    case Value::value_t::number_unsigned:
    case Value::value_t::number_float:
      return "a number";
    case Value::value_t::string:
      return "a string";
    case Value::value_t::array:
      return "an array";
    case Value::value_t::object:
      return "a dictionary";
    case Value::value_t::binary:
    case Value::value_t::discarded:
      break;
  }
  return "an unsupported value";
}

std::string escapeSlashes(std::string text) {
  std::size_t count = 0;
  for (const char c : text)
    count += c == '/' ? 1 : 0;
  if (count == 0) return text;
  std::string out;
  out.reserve(text.size() + count);
  for (const char c : text) {
    if (c == '/') out.push_back('\\');
    out.push_back(c);
  }
  return out;
}

}  // namespace

std::string CodingPath::string() const {
  std::vector<const CodingPath*> chain;
  for (const CodingPath* p = this;
       p != nullptr && (p->parent != nullptr || p->isIndex || !p->key.empty()); p = p->parent) {
    chain.push_back(p);
  }
  std::string out;
  for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
    if ((*it)->isIndex) {
      out += '[';
      out += std::to_string((*it)->index);
      out += ']';
    } else {
      if (!out.empty()) out += ".";
      out += (*it)->key;
    }
  }
  return out;
}

Value parse(std::string_view text) {
  if (exceedsNestingDepth(text)) {
    throw DecodingError(Kind::dataCorrupted, "",
                        "The given data was not valid JSON: too many nested arrays or objects.");
  }
  Value document = Value::parse(text, nullptr, /*allow_exceptions=*/false);
  if (document.is_discarded()) {
    throw DecodingError(Kind::dataCorrupted, "", "The given data was not valid JSON.");
  }
  return document;
}

std::string serialize(const Ordered& value, Format format) {
  try {
    if (format == Format::compact) return escapeSlashes(value.dump());
    // Re-keying through the sorted-map document gives sorted keys at every level.
    return escapeSlashes(Value(value).dump(2));
  } catch (const nlohmann::json::type_error& error) {
    throw EncodingError(
        std::string("The data couldn\u2019t be written because it isn\u2019t in "
                    "the correct format."));
  }
}

Ordered number(double value) {
  constexpr double exactIntegerLimit = 9007199254740992.0;  // 2^53
  if (std::isfinite(value) && std::trunc(value) == value && std::fabs(value) < exactIntegerLimit) {
    return static_cast<std::int64_t>(value);
  }
  return value;
}

void throwTypeMismatch(const CodingPath& path, std::string_view expected, const Value& found) {
  const Kind kind = found.is_null() ? Kind::valueNotFound : Kind::typeMismatch;
  throw DecodingError(kind, path.string(),
                      "Expected to decode " + std::string(expected) + " but found " +
                          kindName(found) + " instead.");
}

void throwDataCorrupted(const CodingPath& path, std::string debugDescription) {
  throw DecodingError(Kind::dataCorrupted, path.string(), std::move(debugDescription));
}

std::string Codec<std::string>::decode(const Value& value, const CodingPath& path) {
  if (!value.is_string()) throwTypeMismatch(path, "String", value);
  return value.get_ref<const std::string&>();
}

bool Codec<bool>::decode(const Value& value, const CodingPath& path) {
  if (!value.is_boolean()) throwTypeMismatch(path, "Bool", value);
  return value.get<bool>();
}

double Codec<double>::decode(const Value& value, const CodingPath& path) {
  if (!value.is_number()) throwTypeMismatch(path, "Double", value);
  const double number = value.get<double>();
  if (!std::isfinite(number)) throwDataCorrupted(path, "Number is not representable.");
  return number;
}

std::int64_t decodeInteger(const Value& value, const CodingPath& path, std::int64_t min,
                           std::int64_t max) {
  if (!value.is_number()) throwTypeMismatch(path, "Int", value);
  if (value.is_number_unsigned()) {
    const auto n = value.get<std::uint64_t>();
    if (n > static_cast<std::uint64_t>(max)) {
      throwDataCorrupted(path, "Number " + std::to_string(n) + " does not fit.");
    }
    return static_cast<std::int64_t>(n);
  }
  if (value.is_number_integer()) {
    const auto n = value.get<std::int64_t>();
    if (n < min || n > max) {
      throwDataCorrupted(path, "Number " + std::to_string(n) + " does not fit.");
    }
    return n;
  }
  // 5.0 is an integer; 5.5 and 1e300 are not.
  const double d = value.get<double>();
  constexpr double twoToThe63 = 9223372036854775808.0;
  if (!std::isfinite(d) || std::trunc(d) != d || d < static_cast<double>(min) ||
      d > static_cast<double>(max) || d >= twoToThe63) {
    throwDataCorrupted(path, "Number " + value.dump() + " is not an integer that fits.");
  }
  return static_cast<std::int64_t>(d);
}

Uuid Codec<Uuid>::decode(const Value& value, const CodingPath& path) {
  const std::string text = Codec<std::string>::decode(value, path);
  if (auto uuid = Uuid::parse(text)) return *uuid;
  throwDataCorrupted(path, "Attempted to decode UUID from invalid UUID string.");
}

Date Codec<Date>::decode(const Value& value, const CodingPath& path) {
  return Date{Codec<double>::decode(value, path)};
}

ByteString Codec<ByteString>::decode(const Value& value, const CodingPath& path) {
  const std::string text = Codec<std::string>::decode(value, path);
  if (auto bytes = base64::decode(text)) return std::move(*bytes);
  throwDataCorrupted(path, "Encountered Data is not valid Base64.");
}

Ordered Codec<ByteString>::encode(const ByteString& value) {
  return base64::encode(value);
}

ObjectReader::ObjectReader(const Value& value, const CodingPath& path)
    : value_(value), path_(path) {
  if (!value.is_object()) throwTypeMismatch(path, "Dictionary", value);
}

const Value* ObjectReader::find(std::string_view key) const {
  const auto it = value_.find(key);
  if (it == value_.end() || it->is_null()) return nullptr;
  return &*it;
}

void ObjectReader::throwMissing(std::string_view key) const {
  const CodingPath keyPath = path_.child(key);
  const auto it = value_.find(key);
  const bool isNull = it != value_.end();
  throw DecodingError(isNull ? Kind::valueNotFound : Kind::keyNotFound, keyPath.string(),
                      isNull ? "Expected a value but found null instead."
                             : "No value associated with key \"" + std::string(key) + "\".");
}

}  // namespace orin::json
