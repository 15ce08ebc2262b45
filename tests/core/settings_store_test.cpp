#include <cstdint>
#include <fstream>
#include <limits>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "OrinLink/common/AtomicFile.h"
#include "OrinLink/settings/SettingsStore.h"

#include "tests/core/TemporaryDirectory.h"

namespace orin {
namespace {

using nlohmann::json;

TEST(SettingsStore, ReadsEveryKindOfStoredValue) {
  test::TemporaryDirectory dir;
  const auto file = dir.path() / "settings.json";
  std::ofstream(file) << R"({
    "null": null, "true": true, "false": false, "zero": 0, "int": 42, "negative": -7,
    "float": 3.9, "negativeFloat": -3.9, "half": 0.5, "two": 2.0, "huge": 18446744073709551615,
    "text42": "42", "padded": " 12 ", "textFloat": "-3.9", "word": "abc", "TRUE": "TRUE",
    "Yes": "Yes", "one": "1", "textZero": "0", "empty": "", "mixed": "12abc",
    "array": [1], "object": {"a": 1}
  })";
  struct Case {
    const char* key;
    bool present;
    std::int64_t integer;
    bool boolean;
    std::optional<std::string> string;
  };
  constexpr auto max = std::numeric_limits<std::int64_t>::max();
  const Case cases[] = {
      {"absent", false, 0, false, std::nullopt},
      {"null", false, 0, false, std::nullopt},
      {"true", true, 1, true, std::nullopt},
      {"false", true, 0, false, std::nullopt},
      {"zero", true, 0, false, "0"},
      {"int", true, 42, true, "42"},
      {"negative", true, -7, true, "-7"},
      {"float", true, 3, true, "3.9"},
      {"negativeFloat", true, -3, true, "-3.9"},
      {"half", true, 0, true, "0.5"},
      {"two", true, 2, true, "2"},
      {"huge", true, max, true, "18446744073709551615"},
      {"text42", true, 42, false, "42"},
      {"padded", true, 12, false, " 12 "},
      {"textFloat", true, -3, false, "-3.9"},
      {"word", true, 0, false, "abc"},
      {"TRUE", true, 0, true, "TRUE"},
      {"Yes", true, 0, true, "Yes"},
      {"one", true, 1, true, "1"},
      {"textZero", true, 0, false, "0"},
      {"empty", true, 0, false, ""},
      {"mixed", true, 0, false, "12abc"},
      {"array", true, 0, false, std::nullopt},
      {"object", true, 0, false, std::nullopt},
  };
  const SettingsStore store(file);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.key);
    EXPECT_EQ(store.object(c.key).has_value(), c.present);
    EXPECT_EQ(store.integer(c.key), c.integer);
    EXPECT_EQ(store.boolean(c.key), c.boolean);
    EXPECT_EQ(store.string(c.key), c.string);
  }
  EXPECT_EQ(store.object("false"), json(false));
}

TEST(SettingsStore, WritesPersistPrivatelyAcrossInstances) {
  test::TemporaryDirectory dir;
  const auto file = dir.path() / "config" / "OrinLink" / "settings.json";
  {
    SettingsStore store(file);
    store.set("serverPort", 38150);
    store.set("pairingSoundEnabled", false);
    store.set("activeModel", "gemma4:12b");
    store.set("gone", 1);
    store.remove("gone");
  }
  const SettingsStore store(file);
  EXPECT_EQ(store.integer("serverPort"), 38150);
  EXPECT_EQ(store.object("pairingSoundEnabled"), json(false));
  EXPECT_EQ(store.string("activeModel"), "gemma4:12b");
  EXPECT_EQ(store.object("gone"), std::nullopt);
  EXPECT_EQ(test::permissions(file.parent_path()), 0700);
  EXPECT_EQ(test::permissions(file), 0600);
}

TEST(SettingsStore, UnreadableFilesAreEmptyAndReplacedOnWrite) {
  const std::optional<std::string> contents[] = {std::nullopt, "", "garbage", "[1, 2]", "\"text\""};
  for (const auto& content : contents) {
    test::TemporaryDirectory dir;
    const auto file = dir.path() / "settings.json";
    if (content) std::ofstream(file) << *content;
    SettingsStore store(file);
    EXPECT_EQ(store.object("serverPort"), std::nullopt) << content.value_or("(missing)");
    store.set("serverPort", 1);
    EXPECT_EQ(SettingsStore(file).integer("serverPort"), 1);
  }
}

TEST(SettingsStore, AFailedWriteIsReportedAndTheValueKept) {
  test::TemporaryDirectory dir;
  std::ofstream(dir.path() / "blocker") << "a file where the folder should be";
  SettingsStore store(dir.path() / "blocker" / "settings.json");
  std::string reported;
  store.setWriteErrorHandler([&](const std::string& message) { reported = message; });
  store.set("showInDock", true);
  EXPECT_FALSE(reported.empty());
  EXPECT_TRUE(store.boolean("showInDock"));
}

}  // namespace
}  // namespace orin
