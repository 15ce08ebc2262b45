#include <fcntl.h>
#include <fstream>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "OrinLink/system/EditionGuard.h"

#include "tests/core/TemporaryDirectory.h"
#include "tests/system/SystemFixture.h"

namespace orin::test {
namespace {

// Holds a lock file as a running copy of some edition would.
class HeldLock {
 public:
  explicit HeldLock(const std::filesystem::path& path)
      : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    if (fd_ < 0 || ::flock(fd_, LOCK_EX | LOCK_NB) != 0) throw std::runtime_error("flock");
  }
  ~HeldLock() { ::close(fd_); }

 private:
  int fd_;
};

const std::string ownLock = "app.orinlink.OrinLink.lock";
const std::string otherLock = "app.orinlink.OrinLink.store.lock";

TEST(EditionGuardTest, OneCopyPerEdition) {
  TemporaryDirectory folder;
  auto first = std::make_unique<EditionGuard>(folder.path());
  EXPECT_EQ(first->verdict(), EditionGuard::Verdict::proceed);
  EXPECT_EQ(first->lockFile(), folder.path() / ownLock);
  {
    const EditionGuard second(folder.path());
    EXPECT_EQ(second.verdict(), EditionGuard::Verdict::alreadyRunning);
    // Still starting: known by its process, not yet reachable.
    const auto copy = second.runningCopy(0ms);
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->pid, ::getpid());
    EXPECT_FALSE(copy->controlPort);

    first->recordControlAPI(40123, "/somewhere/control-secret");
    const auto reachable = second.runningCopy(0ms);
    ASSERT_TRUE(reachable && reachable->controlPort);
    EXPECT_EQ(*reachable->controlPort, 40123);
    EXPECT_EQ(reachable->secretFile, "/somewhere/control-secret");
  }
  // A copy that was turned away takes nothing with it.
  EXPECT_EQ(EditionGuard(folder.path()).verdict(), EditionGuard::Verdict::alreadyRunning);
  first.reset();
  EXPECT_EQ(EditionGuard(folder.path()).verdict(), EditionGuard::Verdict::proceed);
}

// Commands read the record without the lock, so a record left by a copy that has ended must not
// count.
TEST(EditionGuardTest, ARecordCountsWhileItsProcessLives) {
  TemporaryDirectory folder;
  EXPECT_FALSE(EditionGuard::recordedCopy(folder.path()));
  {
    EditionGuard running(folder.path());
    running.recordControlAPI(40123, "/somewhere/control-secret");
    const auto copy = EditionGuard::recordedCopy(folder.path());
    ASSERT_TRUE(copy && copy->controlPort);
    EXPECT_EQ(*copy->controlPort, 40123);
    EXPECT_EQ(copy->secretFile, "/somewhere/control-secret");
  }
  const pid_t ended = ::fork();
  if (ended == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(ended, nullptr, 0), ended);
  std::ofstream(folder.path() / ownLock, std::ios::trunc)
      << R"({"pid":)" << ended << R"(,"controlPort":40123,"secretFile":"/s"})";
  EXPECT_FALSE(EditionGuard::recordedCopy(folder.path()));
}

TEST(EditionGuardTest, TheOtherEditionCountsOnlyWhileItHoldsItsLock) {
  TemporaryDirectory folder;
  {
    const HeldLock other(folder.path() / otherLock);
    EXPECT_EQ(EditionGuard(folder.path()).verdict(), EditionGuard::Verdict::otherEditionRunning);
  }
  // The file outlives the other edition, which has quit.
  ASSERT_TRUE(std::filesystem::exists(folder.path() / otherLock));
  EXPECT_EQ(EditionGuard(folder.path()).verdict(), EditionGuard::Verdict::proceed);
}

TEST(EditionGuardTest, LockFolderFollowsTheRuntimeDirectory) {
  {
    const ScopedEnvironment environment(
        {{"XDG_RUNTIME_DIR", std::optional<std::string>("/run/user/4242")}});
    EXPECT_EQ(EditionGuard::defaultLockFolder(), "/run/user/4242");
  }
  const ScopedEnvironment environment({{"XDG_RUNTIME_DIR", std::optional<std::string>()}});
  const auto fallback = EditionGuard::defaultLockFolder();
  EXPECT_EQ(fallback, "/tmp/orinlink-" + std::to_string(::getuid()));
  EXPECT_EQ(permissions(fallback), 0700);
}

// The real orinlink, twice, with everything it touches in a temporary folder: a private bus, a
// notification stand-in, and an xdg-open that writes down what it was asked to open.
class TwoCopiesTest : public ::testing::Test {
 protected:
  TwoCopiesTest() {
    for (const char* sub : {"run", "bin"})
      std::filesystem::create_directories(folder_.path() / sub);
    std::filesystem::permissions(folder_.path() / "run", std::filesystem::perms::owner_all);
    const auto opener = folder_.path() / "bin" / "xdg-open";
    std::ofstream(opener) << "#!/bin/sh\necho \"$1\" >> '" << openedLog().string() << "'\n";
    std::filesystem::permissions(opener, std::filesystem::perms::owner_all);
  }

  std::filesystem::path openedLog() const { return folder_.path() / "opened.txt"; }
  std::filesystem::path runtime() const { return folder_.path() / "run"; }

  std::unique_ptr<ChildProcess> start(const std::vector<std::string>& extra = {}) {
    return std::make_unique<OrinLinkProcess>(
        ORINLINK_PATH, folder_.path(),
        std::map<std::string, std::string>{
            {"XDG_RUNTIME_DIR", runtime().string()},
            {"DBUS_SESSION_BUS_ADDRESS", bus_.address()},
            {"DBUS_SYSTEM_BUS_ADDRESS", bus_.address()},
            {"PATH", (folder_.path() / "bin").string() + ":/usr/bin:/bin"},
            {"WAYLAND_DISPLAY", "orinlink-test"}},
        extra);
  }

  std::string opened() const { return readText(openedLog()); }

  TemporaryDirectory folder_;
  PrivateBus bus_;
  BusStandIn notifications_{bus_.address(), {"--notifications"}};
};

TEST_F(TwoCopiesTest, ASecondStartOpensTheRunningCopysPanelAndEnds) {
  auto running = start({"--no-open"});
  // Reachable once its lock file names the control port.
  ASSERT_TRUE(eventually([&] {
    return readText(runtime() / ownLock).find("controlPort") != std::string::npos;
  })) << running->output();
  EXPECT_EQ(opened(), "");

  // Started at login while already running: nothing to show.
  auto quiet = start({"--no-open"});
  EXPECT_EQ(quiet->waitForExit(), 0) << quiet->output();
  EXPECT_EQ(opened(), "");

  auto second = start();
  EXPECT_EQ(second->waitForExit(), 0) << second->output();
  EXPECT_NE(second->output().find("already running"), std::string::npos);
  ASSERT_TRUE(eventually([&] { return !opened().empty(); })) << running->output();
  EXPECT_TRUE(opened().starts_with("http://127.0.0.1:")) << opened();
  EXPECT_FALSE(running->waitForExit(0ms)) << "the running copy must carry on";
}

TEST_F(TwoCopiesTest, TheOtherEditionStopsThisOneBeforeAnythingStarts) {
  const HeldLock other(runtime() / otherLock);
  auto app = start();
  EXPECT_EQ(app->waitForExit(), 1);
  const std::string output = app->output();
  EXPECT_NE(output.find("Another edition of Orin Link is open"), std::string::npos) << output;
  EXPECT_NE(output.find("Quit the other Orin Link edition first, then open this one. Only one can "
                        "serve your devices at a time. When switching editions, pair your devices "
                        "again."),
            std::string::npos);
  EXPECT_TRUE(notifications_.waitForLine(
      "notify app=app.orinlink.OrinLink icon=app.orinlink.OrinLink summary=Another edition of "
      "Orin Link is open body=Quit the other Orin Link edition first"))
      << notifications_.output();
  // Nothing else started: not even the control secret was made.
  EXPECT_FALSE(std::filesystem::exists(folder_.path() / "config" / "control-secret"));
}

}  // namespace
}  // namespace orin::test
