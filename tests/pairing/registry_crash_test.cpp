#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <random>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLink/common/AtomicFile.h"
#include "OrinLink/pairing/DeviceRegistry.h"

#include "tests/core/TemporaryDirectory.h"

namespace orin {
namespace {

int crashIterations() {
  const char* value = std::getenv("ORIN_CRASH_ITERATIONS");
  return value != nullptr ? std::atoi(value) : 50;
}

// Starts the writer with its standard output on a pipe; killed and reaped when it goes away.
class Writer {
 public:
  explicit Writer(const std::filesystem::path& file) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    std::string program = ORIN_CRASH_WRITER, path = file.string();
    char* argv[] = {program.data(), path.data(), nullptr};
    if (::posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv, environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    saves_ = fds[0];
  }
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;
  ~Writer() {
    kill();
    if (saves_ >= 0) ::close(saves_);
  }

  bool started() const { return pid_ > 0; }

  // Blocks until the writer reports `count` more saves; false when it stopped first.
  bool awaitSaves(int count) {
    char bytes[64];
    while (count > 0) {
      const ssize_t n =
          ::read(saves_, bytes, std::min(sizeof bytes, static_cast<std::size_t>(count)));
      if (n <= 0) return false;
      count -= static_cast<int>(n);
    }
    return true;
  }

  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int saves_ = -1;
};

TEST(RegistryCrash, AKilledWriterAlwaysLeavesAValidList) {
  test::TemporaryDirectory dir;
  const auto file = dir.path() / "paired-devices.json";
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 generator(seed);
  // The next save is under way when the count is reached, so the kill lands inside it.
  std::uniform_int_distribution<int> saves(1, 6);
  std::size_t known = 0;
  for (int i = 0, n = crashIterations(); i < n; ++i) {
    Writer writer(file);
    ASSERT_TRUE(writer.started());
    ASSERT_TRUE(writer.awaitSaves(saves(generator))) << "the writer stopped at iteration " << i;
    writer.kill();

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
