#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLink/common/AtomicFile.h"
#include "OrinLink/pairing/DeviceRegistry.h"

#include "tests/core/TemporaryDirectory.h"
#include "tests/support/ChildProcess.h"

namespace orin {
namespace {

int crashIterations() {
  const char* value = std::getenv("ORIN_CRASH_ITERATIONS");
  return value != nullptr ? std::atoi(value) : 50;
}

TEST(RegistryCrash, AKilledWriterAlwaysLeavesAValidList) {
  test::TemporaryDirectory dir;
  const auto file = dir.path() / "paired-devices.json";
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 generator(seed);
  std::uniform_int_distribution<int> saves(1, 6);
  std::size_t known = 0;
  for (int i = 0, n = crashIterations(); i < n; ++i) {
    {
      test::ChildProcess writer({ORIN_CRASH_WRITER, file.string()});
      // Killed on leaving the scope, by then in the middle of the next save.
      ASSERT_TRUE(writer.waitForLine("save " + std::to_string(saves(generator)) + ";"))
          << "the writer stopped at iteration " << i;
    }

    const auto text = readFile(file);
    ASSERT_TRUE(text) << "no file after iteration " << i;
    std::vector<PairedDevice> devices;
    ASSERT_NO_THROW(devices = decodeJSON<std::vector<PairedDevice>>(*text)) << *text;
    // Devices are only ever added or updated, so a shorter list means a lost write.
    ASSERT_GE(devices.size(), known);
    ASSERT_FALSE(devices.empty());
    known = devices.size();
  }
}

}  // namespace
}  // namespace orin
