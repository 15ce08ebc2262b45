// The virtual display's logic against a RandR server held in memory.

#include <cmath>
#include <functional>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "OrinLink/screenstream/DisplayWatchdog.h"
#include "OrinLink/screenstream/OrinVirtualDisplay.h"
#include "OrinLink/screenstream/VirtualDisplayLayout.h"
#include "OrinLink/screenstream/VirtualDisplayRecord.h"
#include "OrinLink/screenstream/X11DisplayBackend.h"

#include "FakeDisplayConfigurator.h"

namespace orin::screen {
namespace {

using testing::FakeDisplayConfigurator;
using testing::FakeState;

TEST(ReducedBlankingTiming, MatchesCvtAndKeepsTheExactWidth) {
  struct Case {
    std::uint32_t width, height;
    std::uint32_t dotClock;
    std::uint16_t vSyncStart, vSyncEnd, vTotal;
  };
  // The first two are the published CVT-RB modes; 2580 is not a multiple of 8 and stays as is.
  for (const Case& c : std::vector<Case>{{1920, 1080, 138'500'000, 1083, 1088, 1111},
                                         {2560, 1440, 241'500'000, 1443, 1448, 1481},
                                         {5120, 1440, 469'000'000, 1443, 1453, 1481},
                                         {2580, 1080, 182'500'000, 1083, 1093, 1111}}) {
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
    ModeTiming t = reducedBlankingTiming(c.width, c.height, 60);
    EXPECT_EQ(t,
              (ModeTiming{static_cast<std::uint16_t>(c.width), static_cast<std::uint16_t>(c.height),
                          c.dotClock, static_cast<std::uint16_t>(c.width + 48),
                          static_cast<std::uint16_t>(c.width + 80),
                          static_cast<std::uint16_t>(c.width + 160), c.vSyncStart, c.vSyncEnd,
                          c.vTotal, modeFlagHSyncPositive | modeFlagVSyncNegative}));
    EXPECT_NEAR(refreshRateOf(t), 60, 0.1);
  }
  EXPECT_NEAR(refreshRateOf(reducedBlankingTiming(3840, 1080, 30)), 30, 0.1);
  EXPECT_NEAR(refreshRateOf(reducedBlankingTiming(3440, 1440, 120)), 120, 0.2);
}

TEST(ReducedBlankingTiming, RefusesWhatRandRCannotExpress) {
  struct Case {
    std::uint32_t width, height;
    double rate;
  };
  for (const Case& c : std::vector<Case>{{0, 1080, 60},
                                         {1920, 0, 60},
                                         {65400, 1080, 60},
                                         {1920, 1080, 0},
                                         {1920, 1080, -60},
                                         {1920, 1080, std::nan("")},
                                         {1920, 1080, 5000}}) {
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height) + "@" +
                 std::to_string(c.rate));
    try {
      reducedBlankingTiming(c.width, c.height, c.rate);
      ADD_FAILURE() << "accepted";
    } catch (const VirtualDisplayError& error) {
      EXPECT_EQ(error.kind(), VirtualDisplayError::Kind::invalidSize);
      EXPECT_EQ(error.description(), "A virtual display of " + std::to_string(c.width) + "\u00D7" +
                                         std::to_string(c.height) + " is not possible.");
    }
  }
}

TEST(VirtualDisplayLayout, SizesAndNames) {
  EXPECT_EQ(virtualModeName("Orin Wide", reducedBlankingTiming(1920, 1080, 60)),
            "Orin Wide 1920x1080@59.93");

  for (const char* name : {"DUMMY0", "DUMMY15", "VIRTUAL1", "VIRTUAL-2"}) {
    EXPECT_TRUE(isVirtualOutputName(name)) << name;
  }
  for (const char* name : {"DUMMY", "eDP-1", "HDMI-1", "VIRTUALX", "screen", "XDUMMY1"}) {
    EXPECT_FALSE(isVirtualOutputName(name)) << name;
  }

  // Keeps the density; 109 ppi when the server reports no physical size.
  ScreenState screen{1920, 1080, 508, 286, {}, 0};
  EXPECT_EQ(scaledMillimetres(screen, 7040, 1440), (Millimetres{1863, 381}));
  screen.widthMM = screen.heightMM = 0;
  EXPECT_EQ(scaledMillimetres(screen, 5120, 1440), (Millimetres{1193, 336}));
  EXPECT_EQ(scaledMillimetres(screen, 1, 1), (Millimetres{1, 1}));
}

TEST(VirtualDisplayLayout, PlacesToTheRightOfEverythingShown) {
  std::vector<ModeInfo> modes{{7, "m", {1920, 1080, 0, 0, 0, 0, 0, 0, 0, 0}}};
  ScreenState screen{4000, 2000, 1, 1, {{1, 7, 0, 0, rotate0, {9}}, {2, 0, 0, 0, rotate0, {}}}, 0};
  EXPECT_EQ(desktopRightEdge(screen, modes, {}), 1920);
  screen.crtcs[1] = {2, 7, 1920, 0, rotate90, {10}};
  EXPECT_EQ(desktopRightEdge(screen, modes, {}), 3000);
  EXPECT_EQ(desktopRightEdge(screen, modes, {{"side", 3000, 0, 500, 500, 1, 1, {}}}), 3500);
  ScreenState bare{1920, 1080, 1, 1, {}, 0};
  EXPECT_EQ(desktopRightEdge(bare, modes, {}), 1920);
}

TEST(VirtualDisplayLayout, ChoosesAnIdleVirtualOutput) {
  ScreenState screen{1920, 1080, 1, 1, {}, 0};
  for (RandRId c = 1; c <= 4; ++c)
    screen.crtcs.push_back({c, 0, 0, 0, rotate0, {}});
  screen.crtcs[0] = {1, 7, 0, 0, rotate0, {100}};
  auto output = [](RandRId id, const std::string& name, bool connected, std::vector<RandRId> crtcs,
                   RandRId crtc = 0) {
    return OutputInfo{id, name, connected, crtc, std::move(crtcs), {}, 0};
  };
  struct Case {
    const char* what;
    std::vector<OutputInfo> outputs;
    std::optional<OutputChoice> expected;
  };
  std::vector<Case> cases{
      {"dummy",
       {output(100, "DUMMY0", true, {1}, 1), output(101, "DUMMY1", false, {2}),
        output(102, "DUMMY2", false, {3})},
       OutputChoice{101, 2, "DUMMY1"}},
      {"disconnected before a dummy the driver still calls connected",
       {output(101, "DUMMY1", true, {2}), output(102, "DUMMY2", false, {3})},
       OutputChoice{102, 3, "DUMMY2"}},
      {"a dummy that was used before",
       {output(100, "DUMMY0", true, {1}, 1), output(101, "DUMMY1", true, {2})},
       OutputChoice{101, 2, "DUMMY1"}},
      {"intel, skipping its busy CRTC",
       {output(100, "eDP1", true, {1}, 1), output(103, "VIRTUAL1", false, {1, 4})},
       OutputChoice{103, 4, "VIRTUAL1"}},
      {"a connected VIRTUAL mirrors a real screen",
       {output(103, "VIRTUAL1", true, {4}), output(104, "HDMI1", false, {3})},
       std::nullopt},
      {"no idle CRTC", {output(101, "DUMMY1", false, {1})}, std::nullopt},
      {"xvfb", {output(100, "screen", true, {1}, 1)}, std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(chooseVirtualOutput(c.outputs, screen), c.expected) << c.what;
  }
}

TEST(ApplyScreenState, ReachesTheTargetInAnOrderTheServerAccepts) {
  // Two screens side by side; either output can use either CRTC.
  auto fake = FakeDisplayConfigurator::dummyServer();
  constexpr RandRId mode1080 = FakeDisplayConfigurator::mode1080;
  fake.state.modes.push_back({0x70, "2560x1440", reducedBlankingTiming(2560, 1440, 60)});
  fake.output("DUMMY0")->modes.push_back(0x70);
  fake.output("DUMMY0")->possibleCrtcs = {0x40, 0x41};
  fake.output("DUMMY1")->possibleCrtcs = {0x40, 0x41};
  fake.state.screen.crtcs[1] = {0x41, mode1080, 1920, 0, rotate0, {0x4f}};
  fake.state.screen.width = 3840;
  fake.state.screen.widthMM = 1016;
  ScreenState start = fake.state.screen;

  struct Case {
    const char* what;
    std::function<void(ScreenState&)> edit;
  };
  std::vector<Case> cases{
      {"grow, then a larger mode",
       [](ScreenState& s) {
         s.crtcs[0].mode = 0x70;
         s.crtcs[1].x = 2560;
         s.width = 4480;
         s.height = 1440;
         s.heightMM = 381;
       }},
      {"one off, and the framebuffer shrunk",
       [](ScreenState& s) {
         s.crtcs[1] = {0x41, 0, 0, 0, rotate0, {}};
         s.width = 1920;
         s.widthMM = 508;
       }},
      {"the outputs swap CRTCs",
       [](ScreenState& s) {
         s.crtcs[0].outputs = {0x4f};
         s.crtcs[1].outputs = {0x4e};
         s.primary = 0x4f;
       }},
      {"rotated and shrunk",
       [](ScreenState& s) {
         s.crtcs[1] = {0x41, 0, 0, 0, rotate0, {}};
         s.crtcs[0].rotation = rotate90;
         s.width = 1080;
         s.height = 1920;
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    fake.state.screen = start;
    fake.output("DUMMY0")->crtc = 0x40;
    fake.output("DUMMY1")->crtc = 0x41;
    ScreenState target = start;
    c.edit(target);
    EXPECT_FALSE(applyScreenState(fake, target));
    EXPECT_EQ(fake.state.screen, target);
  }
}

// Records what the display hands over, with the screen as it was at that moment.
class RecordingGuard : public DisplayGuard {
 public:
  struct Log {
    std::vector<std::pair<VirtualDisplayRecord, ScreenState>> updates;
    bool released = false;
    bool gone = false;
  };
  RecordingGuard(Log& log, FakeDisplayConfigurator& fake) : log_(log), fake_(fake) {}
  bool update(const VirtualDisplayRecord& record) override {
    if (log_.gone) return false;
    log_.updates.emplace_back(record, fake_.state.screen);
    return true;
  }
  void release() override { log_.released = true; }

 private:
  Log& log_;
  FakeDisplayConfigurator& fake_;
};

class VirtualDisplayTest : public ::testing::Test {
 protected:
  std::unique_ptr<OrinVirtualDisplay> create(std::uint32_t width = 5120,
                                             std::uint32_t height = 1440, bool guarded = true) {
    return OrinVirtualDisplay::create(
        std::make_unique<FakeDisplayConfigurator>(fake),
        guarded ? std::make_unique<RecordingGuard>(log, fake) : nullptr, "Orin Wide", width, height,
        60);
  }

  FakeDisplayConfigurator fake = FakeDisplayConfigurator::dummyServer();
  FakeState original = fake.state;
  RecordingGuard::Log log;
};

TEST_F(VirtualDisplayTest, AFreeDummyOutputShowsItBesideTheDesktop) {
  auto display = create();
  EXPECT_EQ(display->outputName(), "DUMMY1");
  EXPECT_EQ(display->pixelsWide(), 5120u);
  EXPECT_EQ(display->pixelsHigh(), 1440u);
  EXPECT_EQ(display->displayID(), displayIdForMonitorName("Orin Wide"));

  const ScreenState& s = fake.state.screen;
  EXPECT_EQ(s.width, 7040u);
  EXPECT_EQ(s.height, 1440u);
  EXPECT_EQ(s.widthMM, 1863u);
  EXPECT_EQ(s.heightMM, 381u);
  const CrtcState& crtc = *fake.crtc(0x41);
  EXPECT_EQ(crtc.x, 1920);
  EXPECT_EQ(crtc.outputs, std::vector<RandRId>{0x4f});
  const ModeInfo* mode = fake.modeInfo(crtc.mode);
  ASSERT_TRUE(mode);
  EXPECT_EQ(mode->timing, reducedBlankingTiming(5120, 1440, 60));
  EXPECT_EQ(*fake.crtc(0x40), original.screen.crtcs[0]);
  EXPECT_EQ(s.primary, original.screen.primary);
  EXPECT_EQ(fake.monitors().back(),
            (MonitorInfo{"Orin Wide", 1920, 0, 5120, 1440, 1193, 336, {0x4f}}));

  // The guard heard of it before anything changed.
  ASSERT_FALSE(log.updates.empty());
  EXPECT_EQ(log.updates.front().second, original.screen);

  display->invalidate();
  EXPECT_EQ(fake.state, original);
  EXPECT_EQ(display->displayID(), 0u);
  EXPECT_TRUE(log.released);
  auto changes = fake.changes.size();
  display->invalidate();
  display.reset();
  EXPECT_EQ(fake.changes.size(), changes);
}

TEST_F(VirtualDisplayTest, RefusalsSayWhy) {
  struct Case {
    const char* what;
    std::function<void()> arrange;
    std::uint32_t width, height;
    std::string text;
  };
  std::vector<Case> cases{
      {"no RandR 1.5", [this] { fake.monitorsSupported = false; }, 5120, 1440,
       "This X display cannot add a virtual display: it needs RandR 1.5 or a free virtual "
       "output."},
      {"zero width", [] {}, 0, 1440, "A virtual display of 0\u00D71440 is not possible."},
      {"a framebuffer that cannot grow enough",
       [this] { fake = FakeDisplayConfigurator::xvfbServer(1920, 1080); }, 3840, 1080,
       "The X screen cannot grow to 5760\u00D71080 to make room for the virtual display (at "
       "most 1920\u00D71080)."},
      {"a refused configuration", [this] { fake.refused = {"setCrtc"}; }, 5120, 1440,
       "Could not set up the virtual display (X11 error 11)."},
      {"a refused monitor", [this] { fake.refused = {"setMonitor"}; }, 5120, 1440,
       "Could not set up the virtual display (X11 error 11)."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    fake = FakeDisplayConfigurator::dummyServer();
    c.arrange();
    FakeState before = fake.state;
    try {
      create(c.width, c.height);
      ADD_FAILURE() << "created";
    } catch (const VirtualDisplayError& error) {
      EXPECT_EQ(error.description(), c.text);
    }
    fake.refused.clear();
    EXPECT_EQ(fake.state, before) << "not rolled back";
  }
}

TEST_F(VirtualDisplayTest, SoleDesktopSwitchesTheOthersOffAndBackExactly) {
  fake.state.screen.crtcs[2] = {0x42, FakeDisplayConfigurator::mode1080, 0, 1080, rotate90, {0x50}};
  fake.output("DUMMY2")->crtc = 0x42;
  fake.state.screen.height = 3000;
  original = fake.state;
  auto display = create();
  EXPECT_EQ(display->outputName(), "DUMMY1");
  FakeState separate = fake.state;

  ASSERT_TRUE(display->adoptAsSoleDesktop());
  EXPECT_TRUE(display->isSoleDesktop());
  EXPECT_TRUE(display->adoptAsSoleDesktop());
  const ScreenState& s = fake.state.screen;
  EXPECT_EQ(s.width, 5120u);
  EXPECT_EQ(s.height, 1440u);
  EXPECT_EQ(s.primary, 0x4fu);
  for (const auto& crtc : s.crtcs) {
    EXPECT_EQ(crtc.active(), crtc.crtc == 0x41) << crtc.crtc;
  }
  EXPECT_EQ(fake.crtc(0x41)->x, 0);
  EXPECT_EQ(fake.monitors(),
            (std::vector<MonitorInfo>{{"Orin Wide", 0, 0, 5120, 1440, 1193, 336, {0x4f}}}));
  ASSERT_TRUE(log.updates.back().first.sole);
  EXPECT_EQ(log.updates.back().first.sole->before, separate.screen);

  display->restoreSeparateDesktops();
  EXPECT_FALSE(display->isSoleDesktop());
  EXPECT_EQ(fake.state, separate);
  auto changes = fake.changes.size();
  display->restoreSeparateDesktops();
  EXPECT_EQ(fake.changes.size(), changes);

  ASSERT_TRUE(display->adoptAsSoleDesktop());
  display.reset();
  EXPECT_EQ(fake.state, original);
  EXPECT_TRUE(log.released);
}

// Without a watchdog nothing is touched; a switch the server refuses is undone.
TEST_F(VirtualDisplayTest, ARefusedSwitchLeavesTheDesktopsAsTheyWere) {
  struct Case {
    const char* what;
    bool guarded;
    std::function<void()> arrange;
    bool touches;
  };
  const Case cases[] = {
      {"no watchdog", false, [] {}, false},
      {"the watchdog gone", true, [this] { log.gone = true; }, false},
      {"the server refusing", true, [this] { fake.refused = {"setPrimary"}; }, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto display = create(5120, 1440, c.guarded);
    const FakeState separate = fake.state;
    const auto changes = fake.changes.size();
    c.arrange();
    EXPECT_FALSE(display->adoptAsSoleDesktop());
    fake.refused.clear();
    log.gone = false;
    EXPECT_FALSE(display->isSoleDesktop());
    EXPECT_EQ(fake.state, separate);
    EXPECT_EQ(fake.changes.size() > changes, c.touches);
    display.reset();
    EXPECT_EQ(fake.state, original);
  }
}

TEST_F(VirtualDisplayTest, AFailedRestoreIsLeftToTheWatchdog) {
  auto display = create();
  ASSERT_TRUE(display->adoptAsSoleDesktop());
  fake.refused = {"setCrtc"};
  display->invalidate();
  EXPECT_FALSE(log.released);
  fake.refused.clear();
  ASSERT_TRUE(log.updates.back().first.sole);
  EXPECT_FALSE(restoreUserDesktop(fake, log.updates.back().first));
  EXPECT_EQ(fake.state, original);
}

TEST_F(VirtualDisplayTest, ARestoreNeverLeavesEveryScreenOff) {
  VirtualDisplayRecord record{"Orin Wide", "",   0,    0,   5120, 1440, 0,
                              0,           1920, 1080, 508, 286,  0x4e, std::nullopt};
  record.sole = SoleDesktopState{original.screen, 1920, 0};
  // The saved layout names a mode that has gone away since.
  record.sole->before.crtcs[0].mode = 0x99;
  fake.setCrtc({0x40, 0, 0, 0, rotate0, {}});
  EXPECT_TRUE(restoreUserDesktop(fake, record));
  EXPECT_EQ(*fake.crtc(0x40), original.screen.crtcs[0]);
}

// Runs the watchdog's side on a thread until the app's end closes; returns its status.
int watch(FakeDisplayConfigurator& fake, const std::vector<std::string>& lines,
          bool reachable = true) {
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  int status = -1;
  std::thread watchdog([&] {
    status = runDisplayWatchdog(ends[1], [&]() -> std::unique_ptr<DisplayConfigurator> {
      if (!reachable) throw VirtualDisplayError::displayServerUnreachable(":9");
      return std::make_unique<FakeDisplayConfigurator>(fake);
    });
    close(ends[1]);
  });
  char ready[6] = {};
  ssize_t heard = read(ends[0], ready, sizeof ready);
  for (const auto& line : lines) {
    EXPECT_EQ(write(ends[0], line.data(), line.size()), static_cast<ssize_t>(line.size()));
  }
  close(ends[0]);
  watchdog.join();
  EXPECT_EQ(heard, reachable ? 6 : 0);
  return status;
}

TEST_F(VirtualDisplayTest, TheWatchdogRestoresFromTheLastCompleteRecordWhenTheAppIsGone) {
  auto display = create(3840, 1080);
  ASSERT_TRUE(display->adoptAsSoleDesktop());
  std::vector<std::string> lines;
  for (const auto& update : log.updates)
    lines.push_back(encodeRecord(update.first) + "\n");
  lines.push_back(lines.back().substr(0, 40));

  auto changes = fake.changes.size();
  EXPECT_EQ(watch(fake, lines), 0);
  EXPECT_EQ(fake.state, original);
  EXPECT_GT(fake.changes.size(), changes);
}

TEST_F(VirtualDisplayTest, TheWatchdogLeavesTheScreenAloneAfterAReleaseOrWithoutADisplay) {
  VirtualDisplayRecord record{"Orin Wide", "",   0,    0,   5120, 1440, 1920,
                              0,           1920, 1080, 508, 286,  0x4e, std::nullopt};
  EXPECT_EQ(watch(fake, {encodeRecord(record) + "\n", "release\n"}), 0);
  EXPECT_TRUE(fake.changes.empty());
  EXPECT_EQ(watch(fake, {}, false), 1);
}

}  // namespace
}  // namespace orin::screen
