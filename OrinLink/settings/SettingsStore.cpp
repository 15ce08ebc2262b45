#include "OrinLink/settings/SettingsStore.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "OrinLink/common/AtomicFile.h"
#include "OrinLink/common/ErrorDescription.h"
#include "OrinLinkShared/JSONCoding.h"

namespace orin {
namespace {

std::int64_t truncated(double value) {
  // Out-of-range conversions are undefined, so the extremes saturate.
  constexpr double limit = 9223372036854775808.0;  // 2^63
  if (value >= limit) return std::numeric_limits<std::int64_t>::max();
  if (value <= -limit) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(value);
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\n\r\f\v";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::int64_t parseInteger(std::string_view text) {
  text = trimmed(text);
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  const char* end = text.data() + text.size();
  std::int64_t integer = 0;
  if (auto [ptr, error] = std::from_chars(text.data(), end, integer);
      error == std::errc() && ptr == end) {
    return integer;
  }
  double number = 0;
  if (auto [ptr, error] = std::from_chars(text.data(), end, number, std::chars_format::general);
      error == std::errc() && ptr == end && std::isfinite(number)) {
    return truncated(number);
  }
  return 0;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

}  // namespace

SettingsStore::SettingsStore(std::filesystem::path file) : file_(std::move(file)) {
  const auto text = readFile(file_);
  if (!text) return;
  try {
    json::Value document = json::parse(*text);
    if (document.is_object()) values_ = std::move(document);
  } catch (const Error&) {
    // Unreadable settings are an empty store; the next write replaces the file.
  }
}

std::optional<json::Value> SettingsStore::object(std::string_view key) const {
  const auto it = values_.find(key);
  if (it == values_.end() || it->is_null()) return std::nullopt;
  return *it;
}

std::int64_t SettingsStore::integer(std::string_view key) const {
  const auto value = object(key);
  if (!value) return 0;
  switch (value->type()) {
    case json::Value::value_t::number_integer:
      return value->get<std::int64_t>();
    case json::Value::value_t::number_unsigned: {
      const auto n = value->get<std::uint64_t>();
      constexpr auto max = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
      return n > max ? std::numeric_limits<std::int64_t>::max() : static_cast<std::int64_t>(n);
    }
    case json::Value::value_t::number_float:
      return truncated(value->get<double>());
    case json::Value::value_t::boolean:
      return value->get<bool>() ? 1 : 0;
    case json::Value::value_t::string:
      return parseInteger(value->get_ref<const std::string&>());
    default:
      return 0;
  }
}

bool SettingsStore::boolean(std::string_view key) const {
  const auto value = object(key);
  if (!value) return false;
  if (value->is_boolean()) return value->get<bool>();
  if (value->is_number()) return value->get<double>() != 0;
  if (value->is_string()) {
    const auto& text = value->get_ref<const std::string&>();
    return equalsIgnoringCase(text, "true") || equalsIgnoringCase(text, "yes") || text == "1";
  }
  return false;
}

std::optional<std::string> SettingsStore::string(std::string_view key) const {
  const auto value = object(key);
  if (!value) return std::nullopt;
  if (value->is_string()) return value->get<std::string>();
  if (value->is_number_integer()) return value->dump();
  if (value->is_number_float()) {
    // 2.0 reads as "2", as a number's own description would put it.
    const double number = value->get<double>();
    if (std::trunc(number) == number && std::fabs(number) < 9007199254740992.0) {
      return std::to_string(static_cast<std::int64_t>(number));
    }
    return value->dump();
  }
  return std::nullopt;
}

void SettingsStore::set(std::string_view key, json::Value value) {
  values_[std::string(key)] = std::move(value);
  save();
}

void SettingsStore::remove(std::string_view key) {
  const auto it = values_.find(key);
  if (it == values_.end()) return;
  values_.erase(it);
  save();
}

void SettingsStore::setWriteErrorHandler(std::function<void(const std::string&)> handler) {
  onWriteError_ = std::move(handler);
}

void SettingsStore::save() {
  try {
    std::string text = values_.dump(2) + "\n";
    if (writer_) {
      writer_(std::move(text));
    } else {
      writePrivateFile(file_, text);
    }
  } catch (const std::exception&) {
    if (onWriteError_) onWriteError_(describe(std::current_exception()));
  }
}

}  // namespace orin
