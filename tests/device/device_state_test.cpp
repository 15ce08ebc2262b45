#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "DeviceState.h"
#include "tests/core/TemporaryDirectory.h"

namespace orin::device {
namespace {

namespace fs = std::filesystem;

class DeviceStateFile : public ::testing::Test {
 protected:
  const test::TemporaryDirectory directory_;
  const fs::path root_ = directory_.path();
};

TEST_F(DeviceStateFile, IsWrittenPrivatelyAndReadBack) {
  const fs::path path = root_ / "made" / "here" / "device.json";
  const DeviceState first{"6F1D2C3B-0000-4000-8000-000000000001", "Bench", "192.168.1.20", 38141,
                          "token-1"};
  saveState(path, first);
  EXPECT_EQ(loadState(path), first);
  EXPECT_EQ(test::permissions(path), 0600);
  EXPECT_EQ(test::permissions(root_ / "made"), 0700);
  EXPECT_EQ(test::permissions(root_ / "made" / "here"), 0700);

  // A replacement keeps the mode and leaves no temporary file behind.
  DeviceState second = first;
  second.token = "token-2";
  second.host.reset();
  saveState(path, second);
  EXPECT_EQ(loadState(path), second);
  EXPECT_EQ(test::permissions(path), 0600);
  EXPECT_EQ(std::distance(fs::directory_iterator(path.parent_path()), fs::directory_iterator()), 1);
}

TEST_F(DeviceStateFile, MissingOrDamagedFilesReadAsEmpty) {
  EXPECT_EQ(loadState(root_ / "absent.json"), DeviceState{});
  for (const std::string text : {"", "{\"port\": 70000}", "[1]", "{\"token\": "}) {
    SCOPED_TRACE(text);
    std::ofstream(root_ / "damaged.json", std::ios::trunc) << text;
    EXPECT_EQ(loadState(root_ / "damaged.json"), DeviceState{});
  }
}

TEST_F(DeviceStateFile, AFolderThatCannotBeMadeIsAnError) {
  std::ofstream(root_ / "plain") << "not a folder";
  EXPECT_THROW(saveState(root_ / "plain" / "device.json", DeviceState{}), StateFileError);
}

}  // namespace
}  // namespace orin::device
