#include "OrinLinkShared/JSONValue.h"

namespace orin {

JSONValue JSONValue::decode(const json::Value& value, const json::CodingPath& path) {
  if (value.is_null()) return Null{};
  if (value.is_boolean()) return value.get<bool>();
  if (value.is_number()) return json::Codec<double>::decode(value, path);
  if (value.is_string()) return value.get<std::string>();
  if (value.is_array()) {
    Array array;
    array.reserve(value.size());
    for (std::size_t i = 0; i < value.size(); ++i) {
      array.push_back(decode(value[i], path.child(i)));
    }
    return array;
  }
  if (value.is_object()) {
    Object object;
    for (const auto& [key, member] : value.items()) {
      object.emplace(key, decode(member, path.child(key)));
    }
    return object;
  }
  throw DecodingError(DecodingError::Kind::dataCorrupted, path.string(), "Unsupported JSON value.",
                      "Unsupported JSON value.");
}

json::Ordered JSONValue::encode() const {
  return std::visit(
      [](const auto& payload) -> json::Ordered {
        using T = std::decay_t<decltype(payload)>;
        if constexpr (std::is_same_v<T, Null>) {
          return nullptr;
        } else if constexpr (std::is_same_v<T, double>) {
          return json::number(payload);
        } else if constexpr (std::is_same_v<T, Object>) {
          json::Ordered out = json::Ordered::object();
          for (const auto& [key, member] : payload)
            out[key] = member.encode();
          return out;
        } else if constexpr (std::is_same_v<T, Array>) {
          json::Ordered out = json::Ordered::array();
          for (const auto& member : payload)
            out.push_back(member.encode());
          return out;
        } else {
          return payload;
        }
      },
      storage_);
}

}  // namespace orin
