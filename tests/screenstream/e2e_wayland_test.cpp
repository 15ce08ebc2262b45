// Screen streaming end to end on a Wayland desktop: orinlink in a headless GNOME session of the
// test's own (mutter, PipeWire, Xwayland showing the animated test pattern), with the headset
// client in the test. The session sets DISPLAY too, as a real one does, so a capture of
// Xwayland's root instead of the screen cast would show up as a black picture.

#include <algorithm>
#include <cstdio>
#include <memory>
#include <numeric>

#include <gtest/gtest.h>

#include "tests/screenstream/EndToEndSupport.h"
#include "tests/screenstream/PortalStandIn.h"
#include "tests/support/PipeWireDaemon.h"
#include "tests/support/PipeWireProducer.h"
#include "tests/support/WaylandSessionProcess.h"

namespace orin::device {
namespace {

using namespace e2e;
using testing_support::PipeWireDaemon;
using testing_support::PipeWireProducer;
using testing_support::WaylandSessionProcess;

// How long a run of frames may take: a headless compositor renders in software, and on a loaded
// machine it makes about one frame a second.
constexpr auto framesLimit = 60s;

// Decoded frames are compared at this size: enough to see the pattern's cells move.
constexpr int thumbWidth = 96;
constexpr int thumbHeight = 54;

// Every frame of the recording decoded to small grey pictures.
std::vector<std::vector<unsigned char>> thumbnails(const Recording& recording,
                                                   const fs::path& file) {
  save(recording, file);
  using testing_support::shellQuoted;
  const fs::path gray = file.string() + ".gray";
  const int status =
      testing_support::runShell("ffmpeg -v error -f hevc -i " + shellQuoted(file.string()) +
                                " -fps_mode passthrough -vf scale=" + std::to_string(thumbWidth) +
                                ":" + std::to_string(thumbHeight) + " -pix_fmt gray -f rawvideo " +
                                shellQuoted(gray.string()))
          .second;
  const std::string raw = readText(gray);
  std::vector<std::vector<unsigned char>> frames;
  const std::size_t size = thumbWidth * thumbHeight;
  for (std::size_t at = 0; status == 0 && at + size <= raw.size(); at += size)
    frames.emplace_back(raw.begin() + static_cast<std::ptrdiff_t>(at),
                        raw.begin() + static_cast<std::ptrdiff_t>(at + size));
  return frames;
}

double mean(const std::vector<unsigned char>& picture) {
  return std::accumulate(picture.begin(), picture.end(), 0.0) / static_cast<double>(picture.size());
}

double difference(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b) {
  double total = 0;
  for (std::size_t i = 0; i < a.size(); ++i)
    total += std::abs(static_cast<int>(a[i]) - static_cast<int>(b[i]));
  return total / static_cast<double>(a.size());
}

class EndToEndOnGnomeWayland : public StreamingApp {
 protected:
  void SetUp() override {
    if (auto missing = WaylandSessionProcess::unavailable()) GTEST_SKIP() << *missing;
    if (!testing_support::onPath("ffmpeg")) GTEST_SKIP() << "ffmpeg is not installed";
    session_ = WaylandSessionProcess::start({"1920x1080", fps, true});
    ASSERT_TRUE(session_) << "the Wayland session did not start";
    launch({{"WAYLAND_DISPLAY", session_->waylandDisplay()},
            {"XDG_SESSION_TYPE", "wayland"},
            {"DISPLAY", session_->xDisplay()},
            {"XAUTHORITY", session_->xauthority()},
            {"XDG_RUNTIME_DIR", session_->runtimeDir()},
            {"DBUS_SESSION_BUS_ADDRESS", session_->busAddress()}});
  }

  // The sizes of the monitors' current modes, as "WxH".
  std::vector<std::string> monitorSizes() const {
    const auto [text, status] = testing_support::runShell(
        "DBUS_SESSION_BUS_ADDRESS=" + testing_support::shellQuoted(session_->busAddress()) +
        " gdbus call --session -d org.gnome.Mutter.DisplayConfig -o "
        "/org/gnome/Mutter/DisplayConfig -m org.gnome.Mutter.DisplayConfig.GetCurrentState");
    // A mode reads ('3440x1440@60.000', 3440, 1440, 60.0, 1.0, [1.0], {'is-current': <true>})
    std::vector<std::string> sizes;
    for (std::size_t at = 0; status == 0 && (at = text.find("('", at)) != std::string::npos;) {
      at += 2;
      const auto rate = text.find('@', at);
      const auto quote = text.find('\'', at);
      if (rate == std::string::npos || quote < rate) continue;
      const std::string size = text.substr(at, rate - at);
      if (size.find_first_not_of("0123456789x") != std::string::npos) continue;
      const auto open = text.find('{', rate);
      const auto close = text.find('}', open);
      if (text.substr(open, close - open).find("'is-current': <true>") != std::string::npos)
        sizes.push_back(size);
    }
    return sizes;
  }

  // What the desktop shows, soon: the virtual monitor alone while it replaces the desktop (the
  // setting's default), the session's own monitor alone once it is gone.
  testing::AssertionResult showsOnly(const std::string& size) const {
    if (eventually([&] { return monitorSizes() == std::vector<std::string>{size}; }, eventLimit))
      return testing::AssertionSuccess();
    return testing::AssertionFailure() << testing::PrintToString(monitorSizes());
  }

  std::unique_ptr<WaylandSessionProcess> session_;
};

TEST_F(EndToEndOnGnomeWayland, MirrorFramesDecodeAtTheMonitorsSizeAndMove) {
  Headset headset = join("mirror");
  EXPECT_EQ(headset.welcome.accepted.supportsVirtualDisplays, true);
  Recording got;
  ASSERT_TRUE(receiveFrames(*headset.client, got, fps, framesLimit)) << got.describe() << "\n"
                                                                     << app_->log();
  EXPECT_EQ(got.configs.back().width, 1920);
  EXPECT_EQ(got.configs.back().height, 1080);
  EXPECT_EQ(app_->state()["screenStream"]["capture"], "GNOME screen cast through PipeWire");

  const auto frames = thumbnails(got, directory_.path() / "mirror.hevc");
  ASSERT_EQ(frames.size(), got.frames.size());
  std::size_t changed = 0;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    EXPECT_GT(mean(frames[i]), 16.0) << "frame " << i << " is black";
    if (i > 0 && difference(frames[i], frames[i - 1]) > 1.0) ++changed;
  }
  std::printf("%zu of %zu frames differ from the one before\n", changed, frames.size());
  EXPECT_GE(changed, frames.size() / 4) << "the picture is frozen";
}

TEST_F(EndToEndOnGnomeWayland, AWideMonitorReplacesTheDesktopExactlyWhileTheClientAsksForIt) {
  Headset headset = join("wide");
  Recording got;
  ASSERT_TRUE(receiveUntil(*headset.client, got, startLimit, [&] {
    return got.keyframeOfSize(0, 1920, 1080);
  })) << got.describe();
  EXPECT_TRUE(showsOnly("1920x1080"));
  reshape(headset, got, OrinScreenShape::ultrawide, 2580);
  EXPECT_TRUE(showsOnly("3440x1440"));
  reshape(headset, got, OrinScreenShape::mirror, 1920);
  EXPECT_TRUE(showsOnly("1920x1080"));
  EXPECT_TRUE(decodes(got, directory_.path() / "shapes.hevc"));
}

// Apart from the case above, whose clean exit after a virtual monitor TearDown checks.
TEST_F(EndToEndOnGnomeWayland, AKilledAppLeavesTheDesktopAsItWas) {
  Headset headset = join("killed");
  Recording got;
  reshape(headset, got, OrinScreenShape::ultrawide, 2580);
  ASSERT_TRUE(showsOnly("3440x1440"));
  app_->kill();
  EXPECT_TRUE(showsOnly("1920x1080"));
  app_.reset();
}

// Any other Wayland desktop: the desktop portal (a stand-in on the session's bus) hands out a
// PipeWire node that a test source feeds, as a compositor would once the user chose a screen.
class EndToEndThroughThePortal : public StreamingApp {
 protected:
  void start(test::PortalStandIn::Behaviour behaviour) {
    if (auto missing = PipeWireDaemon::unavailable()) GTEST_SKIP() << *missing;
    std::string why;
    pipeWire_ = PipeWireDaemon::start(why);
    ASSERT_TRUE(pipeWire_) << why;
    producer_ = PipeWireProducer::start(*pipeWire_, {.width = 1280, .height = 720});
    ASSERT_TRUE(producer_);
    behaviour.stream = test::PortalStandIn::Stream{producer_->nodeId(), std::make_pair(1280, 720)};
    behaviour.pipeWireSocket = pipeWire_->socketPath();
    portal_.emplace(pipeWire_->busAddress(), behaviour);
    // No compositor answers there: nothing but the portal may be asked for the screen.
    launch({{"WAYLAND_DISPLAY", "wayland-unserved"},
            {"XDG_SESSION_TYPE", "wayland"},
            {"XDG_RUNTIME_DIR", pipeWire_->runtimeDirectory()},
            {"DBUS_SESSION_BUS_ADDRESS", pipeWire_->busAddress()}});
  }

  std::unique_ptr<PipeWireDaemon> pipeWire_;
  std::unique_ptr<PipeWireProducer> producer_;
  std::optional<test::PortalStandIn> portal_;
};

TEST_F(EndToEndThroughThePortal, StreamsTheChosenScreenAndKeepsTheChoice) {
  start({});
  Headset headset = join("shared");
  Recording got;
  ASSERT_TRUE(receiveFrames(*headset.client, got, fps, framesLimit)) << got.describe() << "\n"
                                                                     << app_->log();
  EXPECT_TRUE(decodes(got, directory_.path() / "portal.hevc"));
  EXPECT_EQ(app_->state()["screenStream"]["capture"],
            "desktop portal screen cast through PipeWire");
  EXPECT_TRUE(fs::exists(directory_.path() / "config" / "screencast-restore-token"));
}

TEST_F(EndToEndThroughThePortal, ADeclinedShareBlocksStreamingAndSaysWhy) {
  // A portal without virtual screens, as wlroots desktops have.
  start({.sourceTypes = 1, .startResponse = 1});
  ASSERT_TRUE(
      eventually([&] { return app_->state()["screenStream"]["supportsVirtualDisplays"] == false; },
                 eventLimit));
  Headset headset = join("declined");
  EXPECT_EQ(headset.welcome.accepted.supportsVirtualDisplays, false);
  Recording got;
  receiveUntil(*headset.client, got, eventLimit, [&] {
    return std::any_of(got.controls.begin(), got.controls.end(),
                       [](const OrinScreenControlMessage& m) { return m.kind == Kind::error; });
  });
  const std::string declined =
      "Screen sharing was declined. Allow Orin Link to share the screen when your desktop asks, "
      "then switch streaming off and on again.";
  const auto error = std::find_if(got.controls.begin(), got.controls.end(),
                                  [](const auto& m) { return m.kind == Kind::error; });
  ASSERT_NE(error, got.controls.end()) << got.describe();
  EXPECT_EQ(error->message, "The Mac could not start streaming: " + declined +
                                ". Check the Orin Link window on the Mac.");
  EXPECT_EQ(app_->state()["screenStream"]["error"], declined);

  sendShape(*headset.client, OrinScreenShape::ultrawide);
  got.controls.clear();
  receiveUntil(*headset.client, got, eventLimit,
               [&] { return got.sawShape(OrinScreenShape::mirror); });
  EXPECT_TRUE(got.sawShape(OrinScreenShape::mirror)) << got.describe();
  EXPECT_EQ(app_->state()["screenStream"]["lastRejection"],
            "A device tried to connect: Ultrawide 21:9 is not available. This desktop's "
            "screen-sharing portal offers no virtual screens, so only a real display can be "
            "streamed.");
}

}  // namespace
}  // namespace orin::device
