#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <system_error>

#include <gtest/gtest.h>

#include "OrinLink/common/AtomicFile.h"

#include "tests/core/TemporaryDirectory.h"

namespace orin {
namespace {

namespace fs = std::filesystem;

void setVariable(const char* name, const std::optional<std::string>& value) {
  if (value) {
    ::setenv(name, value->c_str(), 1);
  } else {
    ::unsetenv(name);
  }
}

std::optional<std::string> variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

TEST(AtomicFile, DefaultDirectoriesFollowXDGRules) {
  struct Case {
    std::optional<std::string> configHome, dataHome;
    fs::path config, data;
  };
  const Case cases[] = {
      {"/xdg/config", "/xdg/data", "/xdg/config/OrinLink", "/xdg/data/OrinLink"},
      {std::nullopt, std::nullopt, "/home/u/.config/OrinLink", "/home/u/.local/share/OrinLink"},
      {"relative", "", "/home/u/.config/OrinLink", "/home/u/.local/share/OrinLink"},
  };
  const auto saved = {std::pair("HOME", variable("HOME")),
                      std::pair("XDG_CONFIG_HOME", variable("XDG_CONFIG_HOME")),
                      std::pair("XDG_DATA_HOME", variable("XDG_DATA_HOME"))};
  setVariable("HOME", "/home/u");
  for (const auto& c : cases) {
    setVariable("XDG_CONFIG_HOME", c.configHome);
    setVariable("XDG_DATA_HOME", c.dataHome);
    EXPECT_EQ(defaultConfigDirectory(), c.config);
    EXPECT_EQ(defaultDataDirectory(), c.data);
  }
  for (const auto& [name, value] : saved)
    setVariable(name, value);
}

TEST(AtomicFile, ReplacesContentWithTheExactModeWhateverTheUmask) {
  test::TemporaryDirectory dir;
  const auto file = dir.path() / "f.json";
  const mode_t previous = ::umask(0077);
  writeFileAtomically(file, "old", 0644);
  writeFileAtomically(file, "new", 0640);
  ::umask(previous);
  EXPECT_EQ(readFile(file), "new");
  EXPECT_EQ(test::permissions(file), 0640);
}

TEST(AtomicFile, AFailedWriteThrowsAndLeavesNoTemporaryFile) {
  test::TemporaryDirectory dir;
  const auto target = dir.path() / "occupied";
  fs::create_directory(target);
  fs::create_directory(target / "child");
  EXPECT_THROW(writeFileAtomically(target, "bytes", 0600), std::system_error);
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
  EXPECT_THROW(writeFileAtomically(dir.path() / "missing" / "f", "bytes", 0600), std::system_error);
}

TEST(AtomicFile, ReadFileGivesNothingForMissingFilesAndFolders) {
  test::TemporaryDirectory dir;
  EXPECT_EQ(readFile(dir.path() / "missing"), std::nullopt);
  EXPECT_EQ(readFile(dir.path()), std::nullopt);
}

}  // namespace
}  // namespace orin
