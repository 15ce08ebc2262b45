// The headless session through its fixture: each kind comes up with what it reports answering,
// and nothing of it outlives its end, whether the test stops it or dies without stopping it.

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <ostream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/Eventually.h"
#include "tests/support/WaylandSessionProcess.h"
#include "tests/support/XServerProcess.h"

namespace orin::testing_support {
namespace {

using namespace std::chrono_literals;

struct Case {
  const char* name;
  bool compositor;
  bool ownerDies;
};

void PrintTo(const Case& kind, std::ostream* out) {
  *out << kind.name;
}

// Every piece of a session has the session's runtime directory in its environment.
bool anyProcessUses(const std::string& runtimeDir) {
  const std::string marker = "XDG_RUNTIME_DIR=" + runtimeDir + '\0';
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream file(entry.path() / "environ", std::ios::binary);
    const std::string environment{std::istreambuf_iterator<char>(file), {}};
    if (environment.starts_with(marker) || environment.find('\0' + marker) != std::string::npos) {
      return true;
    }
  }
  return false;
}

void expectAnswering(const WaylandSessionProcess& session, bool compositor) {
  EXPECT_TRUE(anyProcessUses(session.runtimeDir()));
  const std::string bus = "DBUS_SESSION_BUS_ADDRESS=" + shellQuoted(session.busAddress()) + " ";
  EXPECT_EQ(runShell("XDG_RUNTIME_DIR=" + shellQuoted(session.runtimeDir()) +
                     " pw-cli info 0 >/dev/null 2>&1")
                .second,
            0);
  const auto [owner, status] = runShell(
      bus +
      "dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus "
      "org.freedesktop.DBus.NameHasOwner string:org.gnome.Mutter.ScreenCast");
  EXPECT_EQ(status, 0);
  EXPECT_EQ(owner.find("boolean true") != std::string::npos, compositor);
  if (!compositor) return;
  EXPECT_TRUE(std::filesystem::exists(session.runtimeDir() + "/" + session.waylandDisplay()));
  const auto [screen, xStatus] =
      runShell("DISPLAY=" + shellQuoted(session.xDisplay()) +
               " XAUTHORITY=" + shellQuoted(session.xauthority()) + " xrandr --current");
  EXPECT_EQ(xStatus, 0);
  EXPECT_NE(screen.find("current 1280 x 720"), std::string::npos) << screen;
}

class WaylandSessionTest : public ::testing::TestWithParam<Case> {};

TEST_P(WaylandSessionTest, ComesUpAndLeavesNothingBehind) {
  if (auto missing = WaylandSessionProcess::unavailable()) GTEST_SKIP() << *missing;
  const WaylandSessionProcess::Options options{"1280x720", GetParam().compositor ? 30 : 0,
                                               GetParam().compositor};
  std::string runtimeDir;
  if (!GetParam().ownerDies) {
    auto session = WaylandSessionProcess::start(options);
    ASSERT_TRUE(session);
    expectAnswering(*session, GetParam().compositor);
    runtimeDir = session->runtimeDir();
  } else {
    int report[2];
    ASSERT_EQ(::pipe2(report, O_CLOEXEC), 0);
    const pid_t child = ::fork();
    if (child == 0) {
      auto session = WaylandSessionProcess::start(options);
      const std::string dir = session ? session->runtimeDir() : "";
      [[maybe_unused]] auto written = ::write(report[1], dir.data(), dir.size());
      ::_exit(0);
    }
    ::close(report[1]);
    char buffer[4096];
    for (ssize_t n; (n = ::read(report[0], buffer, sizeof buffer)) > 0;)
      runtimeDir.append(buffer, static_cast<std::size_t>(n));
    ::close(report[0]);
    ::waitpid(child, nullptr, 0);
    ASSERT_FALSE(runtimeDir.empty());
  }
  EXPECT_TRUE(eventually(
      [&] { return !anyProcessUses(runtimeDir) && !std::filesystem::exists(runtimeDir); }, 30s));
}

INSTANTIATE_TEST_SUITE_P(Kinds, WaylandSessionTest,
                         ::testing::Values(Case{"compositor", true, false},
                                           Case{"pipewireOnly", false, false},
                                           Case{"ownerDies", true, true}),
                         [](const auto& kind) { return std::string(kind.param.name); });

}  // namespace
}  // namespace orin::testing_support
