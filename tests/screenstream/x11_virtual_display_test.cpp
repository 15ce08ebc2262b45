// The virtual display on real X servers started by the tests: Xorg with the dummy driver (real
// RandR outputs, DUMMY1..15 free) and Xvfb (no virtual output: the monitor fallback).

#include <atomic>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "OrinLink/screenstream/DisplayCaptureEngine.h"
#include "OrinLink/screenstream/OrinVirtualDisplay.h"
#include "OrinLink/screenstream/VirtualDisplayLayout.h"
#include "OrinLink/screenstream/X11DisplayBackend.h"
#include "OrinLink/screenstream/XcbDisplayConfigurator.h"

#include "tests/support/Eventually.h"
#include "tests/support/XServerProcess.h"

namespace orin::screen {
namespace {

using testing_support::eventually;
using testing_support::XServerKind;
using testing_support::XServerProcess;

// Everything RandR tells about the screen. Connection states are left out: the dummy driver
// reports every output it ever drove as connected, and nothing can undo that.
struct Snapshot {
  ScreenState screen;
  std::vector<ModeInfo> modes;
  std::vector<OutputInfo> outputs;
  std::vector<MonitorInfo> monitors;
  bool operator==(const Snapshot&) const = default;
};

Snapshot snapshot(const std::string& display) {
  XcbDisplayConfigurator c(display);
  Snapshot s{c.screen(), c.modes(), c.outputs(), c.monitors()};
  for (auto& output : s.outputs)
    output.connected = false;
  return s;
}

std::ostream& operator<<(std::ostream& out, const Snapshot& s) {
  out << s.screen.width << "x" << s.screen.height << " (" << s.screen.widthMM << "x"
      << s.screen.heightMM << " mm), primary " << s.screen.primary << ", " << s.modes.size()
      << " modes;";
  for (const auto& c : s.screen.crtcs) {
    if (c.active()) out << " crtc " << c.crtc << " mode " << c.mode << " at " << c.x << "," << c.y;
  }
  for (const auto& m : s.monitors) {
    out << "; monitor " << m.name << " " << m.width << "x" << m.height << "+" << m.x << "+" << m.y;
  }
  return out;
}

bool active(const Snapshot& s, const std::string& outputName) {
  for (const auto& o : s.outputs) {
    if (o.name == outputName) return o.crtc != 0;
  }
  return false;
}

struct Captured {
  std::vector<CapturableDisplay> displays;
  int width = 0;
  int height = 0;
};

// Lists the displays and grabs a couple of frames of `id` through the capture engine.
Captured capture(const std::string& display, std::uint32_t id) {
  std::atomic<int> frames{0};
  std::atomic<int> width{0};
  std::atomic<int> height{0};
  DisplayCaptureEngine engine(std::make_shared<X11DisplayBackend>(display),
                              [&](const CapturedFrame& frame) {
                                width = frame.width;
                                height = frame.height;
                                ++frames;
                              },
                              {});
  Captured result{engine.availableDisplays(), 0, 0};
  engine.start(id, 1920, 1080, 30);
  EXPECT_TRUE(eventually([&] { return frames >= 2; }));
  engine.stop();
  result.width = width;
  result.height = height;
  return result;
}

OrinVirtualDisplay::Options optionsFor(const XServerProcess& server) {
  return {server.display(), WATCHDOG_PATH};
}

class XorgDummyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (auto missing = XServerProcess::unavailable(XServerKind::xorgDummy))
      GTEST_SKIP() << *missing;
    server = XServerProcess::start({XServerKind::xorgDummy});
    ASSERT_TRUE(server) << "Xorg did not start";
    original = snapshot(server->display());
  }

  std::unique_ptr<XServerProcess> server;
  Snapshot original;
};

// Beside the desktop, then alone on it, and gone again; the capture sees each.
TEST_F(XorgDummyTest, AVirtualOutputThatTheCaptureSees) {
  ASSERT_TRUE(OrinVirtualDisplay::isSupported(server->display()));
  auto display = OrinVirtualDisplay::create("Orin Wide", 5120, 1440, 60, optionsFor(*server));
  EXPECT_EQ(display->outputName(), "DUMMY1");
  EXPECT_EQ(display->displayID(), displayIdForMonitorName("Orin Wide"));

  const Snapshot separate = snapshot(server->display());
  EXPECT_EQ(separate.screen.width, 7040u);
  EXPECT_EQ(separate.screen.height, 1440u);
  EXPECT_TRUE(active(separate, "DUMMY0"));
  EXPECT_TRUE(active(separate, "DUMMY1"));
  ASSERT_EQ(separate.monitors.size(), 2u);
  EXPECT_EQ(separate.monitors[1].name, "Orin Wide");
  EXPECT_EQ(separate.monitors[1].x, 1920);
  EXPECT_EQ(separate.monitors[1].widthMM, 1193u);

  Captured seen = capture(server->display(), display->displayID());
  EXPECT_TRUE(
      std::count(seen.displays.begin(), seen.displays.end(),
                 CapturableDisplay{display->displayID(), "DUMMY1 (5120\u00D71440)", 5120, 1440}))
      << seen.displays.size() << " displays";
  EXPECT_EQ(seen.width, 5120);
  EXPECT_EQ(seen.height, 1440);

  ASSERT_TRUE(display->adoptAsSoleDesktop());
  Snapshot sole = snapshot(server->display());
  EXPECT_FALSE(active(sole, "DUMMY0"));
  EXPECT_EQ(sole.screen.width, 5120u);
  EXPECT_EQ(sole.screen.height, 1440u);
  seen = capture(server->display(), display->displayID());
  EXPECT_EQ(seen.displays.size(), 1u);
  EXPECT_EQ(seen.width, 5120);

  display->restoreSeparateDesktops();
  EXPECT_EQ(snapshot(server->display()), separate);
  display->invalidate();
  EXPECT_EQ(display->displayID(), 0u);
  EXPECT_EQ(snapshot(server->display()), original);

  ASSERT_TRUE(OrinVirtualDisplay::create("Orin Wide", 3840, 1080, 60, optionsFor(*server))
                  ->adoptAsSoleDesktop());
  EXPECT_EQ(snapshot(server->display()), original);
}

TEST_F(XorgDummyTest, TheWatchdogRestoresEverythingAfterSigkill) {
  // Orphans of the killed process (the watchdog) come to this process, so it can wait for them.
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t app = fork();
  ASSERT_GE(app, 0);
  if (app == 0) {
    close(ready[0]);
    try {
      auto display = OrinVirtualDisplay::create("Orin Wide", 5120, 1440, 60, optionsFor(*server));
      if (!display->adoptAsSoleDesktop()) _exit(2);
      if (write(ready[1], "y", 1) != 1) _exit(3);
      for (;;)
        pause();
    } catch (...) {
      _exit(4);
    }
  }
  close(ready[1]);
  pollfd reader{ready[0], POLLIN, 0};
  ASSERT_EQ(poll(&reader, 1, 20'000), 1);
  char answer = 0;
  EXPECT_EQ(read(ready[0], &answer, 1), 1);
  close(ready[0]);
  EXPECT_FALSE(active(snapshot(server->display()), "DUMMY0"));

  kill(app, SIGKILL);
  EXPECT_TRUE(eventually([&] { return snapshot(server->display()) == original; }))
      << snapshot(server->display());
  // The app and its watchdog have both ended.
  EXPECT_TRUE(eventually([] {
    pid_t reaped;
    while ((reaped = waitpid(-1, nullptr, WNOHANG)) > 0) {
    }
    return reaped < 0 && errno == ECHILD;
  }));
  prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST(XvfbVirtualDisplay, ABareMonitorOverTheGrownFramebuffer) {
  if (auto missing = XServerProcess::unavailable(XServerKind::xvfb)) GTEST_SKIP() << *missing;
  // Xvfb's framebuffer can grow back to the size it started with, so it starts wide and is
  // made an ordinary 1920×1080 desktop first.
  auto server = XServerProcess::start({XServerKind::xvfb, "7040x1440"});
  ASSERT_TRUE(server);
  {
    XcbDisplayConfigurator c(server->display());
    ScreenState screen = c.screen();
    RandRId mode = c.createMode("1920x1080", reducedBlankingTiming(1920, 1080, 60));
    RandRId output = screen.crtcs.at(0).outputs.at(0);
    c.addOutputMode(output, mode);
    screen = {1920, 1080, 508, 286, screen.crtcs, screen.primary};
    screen.crtcs[0].mode = mode;
    ASSERT_FALSE(applyScreenState(c, screen));
  }
  Snapshot original = snapshot(server->display());

  auto display = OrinVirtualDisplay::create("Orin Wide", 5120, 1440, 60, optionsFor(*server));
  EXPECT_EQ(display->outputName(), "");
  Snapshot now = snapshot(server->display());
  EXPECT_EQ(now.screen.width, 7040u);
  EXPECT_EQ(now.screen.height, 1440u);
  Captured seen = capture(server->display(), display->displayID());
  EXPECT_TRUE(std::count(
      seen.displays.begin(), seen.displays.end(),
      CapturableDisplay{display->displayID(), "Orin Wide (5120\u00D71440)", 5120, 1440}));
  EXPECT_EQ(seen.width, 5120);
  EXPECT_EQ(seen.height, 1440);

  ASSERT_TRUE(display->adoptAsSoleDesktop());
  now = snapshot(server->display());
  EXPECT_EQ(now.screen.width, 5120u);
  EXPECT_FALSE(active(now, "screen"));

  display.reset();
  EXPECT_EQ(snapshot(server->display()), original);
}

TEST(X11VirtualDisplayUnreachable, IsUnsupportedAndSaysWhichDisplay) {
  const std::string name = testing_support::unservedDisplay();
  EXPECT_FALSE(OrinVirtualDisplay::isSupported(name));
  try {
    OrinVirtualDisplay::create("Orin Wide", 3840, 1080, 60, {name, WATCHDOG_PATH});
    FAIL() << "created";
  } catch (const VirtualDisplayError& error) {
    EXPECT_EQ(error.kind(), VirtualDisplayError::Kind::displayServerUnreachable);
    EXPECT_EQ(error.description(),
              "Could not connect to the X display \"" + name +
                  "\". Start Orin Link inside your desktop session, or set DISPLAY to its "
                  "display.");
  }
}

}  // namespace
}  // namespace orin::screen
