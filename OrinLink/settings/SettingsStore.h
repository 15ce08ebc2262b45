#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "OrinLink/common/AtomicFile.h"

namespace orin {

// Per-user settings: one flat JSON object in a file, read with the conversions of a defaults
// store (an absent or unconvertible integer reads 0, a Boolean false) and written atomically on
// every change. Used on the main loop only.
class SettingsStore {
 public:
  // Loads the file; a missing or unreadable file is an empty store.
  explicit SettingsStore(std::filesystem::path file);

  const std::filesystem::path& file() const { return file_; }

  // The stored value as it is, so callers can tell absence from false or 0.
  std::optional<nlohmann::json> object(std::string_view key) const;
  // Numbers truncate toward zero, true is 1, numeric text is parsed; anything else is 0.
  std::int64_t integer(std::string_view key) const;
  // Non-zero numbers, true, and the texts "true", "yes" and "1" in any case are true.
  bool boolean(std::string_view key) const;
  // Text as it is, numbers as their decimal text; anything else is nothing.
  std::optional<std::string> string(std::string_view key) const;

  // Each write persists at once; a failed write is reported to the error handler, and the value
  // stays in memory.
  void set(std::string_view key, nlohmann::json value);
  void remove(std::string_view key);

  void setWriteErrorHandler(std::function<void(const std::string&)> handler);
  // Takes over writing the file (see FileWriter).
  void setFileWriter(FileWriter writer) { writer_ = std::move(writer); }

 private:
  void save();

  std::filesystem::path file_;
  nlohmann::json values_ = nlohmann::json::object();
  std::function<void(const std::string&)> onWriteError_;
  FileWriter writer_;
};

}  // namespace orin
