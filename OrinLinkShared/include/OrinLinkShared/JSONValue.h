#pragma once

#include <map>
#include <string>
#include <variant>
#include <vector>

#include "OrinLinkShared/JSONCoding.h"

namespace orin {

// Any JSON value, as carried in tool arguments.
class JSONValue {
 public:
  using Object = std::map<std::string, JSONValue, std::less<>>;
  using Array = std::vector<JSONValue>;
  struct Null {
    bool operator==(const Null&) const = default;
  };
  // Alternatives in the order of the wire model's cases.
  using Storage = std::variant<std::string, double, bool, Object, Array, Null>;

  JSONValue() : storage_(Null{}) {}
  JSONValue(std::string s) : storage_(std::move(s)) {}
  JSONValue(const char* s) : storage_(std::string(s)) {}
  JSONValue(double d) : storage_(d) {}
  JSONValue(bool b) : storage_(b) {}
  JSONValue(Object o) : storage_(std::move(o)) {}
  JSONValue(Array a) : storage_(std::move(a)) {}
  JSONValue(Null n) : storage_(n) {}

  const Storage& storage() const { return storage_; }
  template <class T>
  const T* get() const {
    return std::get_if<T>(&storage_);
  }
  bool isNull() const { return std::holds_alternative<Null>(storage_); }

  // Tries null, Boolean, number, text, array, object in that order, so true never becomes 1.
  static JSONValue decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;

  bool operator==(const JSONValue&) const = default;

 private:
  Storage storage_;
};

}  // namespace orin
