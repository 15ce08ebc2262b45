#include <filesystem>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <system_error>

#include <gtest/gtest.h>

#include "OrinLink/common/AtomicFile.h"

#include "tests/core/TemporaryDirectory.h"
#include "tests/support/ScopedEnvironment.h"

namespace orin {
namespace {

namespace fs = std::filesystem;

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
  for (const auto& c : cases) {
    const test::ScopedEnvironment environment(
        {{"HOME", "/home/u"}, {"XDG_CONFIG_HOME", c.configHome}, {"XDG_DATA_HOME", c.dataHome}});
    EXPECT_EQ(defaultConfigDirectory(), c.config);
    EXPECT_EQ(defaultDataDirectory(), c.data);
  }
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
