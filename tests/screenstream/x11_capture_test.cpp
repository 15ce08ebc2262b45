// The X11 capture against a real X server: an Xvfb of its own with the time-stamped test pattern
// running on it.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLink/screenstream/DisplayCaptureEngine.h"
#include "OrinLink/screenstream/X11DisplayBackend.h"

#include "TestStamp.h"
#include "tests/support/Eventually.h"
#include "tests/support/XServerProcess.h"

namespace orin::screen {
namespace {

using namespace std::chrono_literals;
using testing_support::eventually;
using testing_support::XServerKind;
using testing_support::XServerProcess;

// ORIN-SIDE, a RandR monitor of our own: 640 × 480 at (200, 100), or its removal.
void setSideMonitor(const XServerProcess& server, bool present) {
  const std::string change =
      present ? "--setmonitor ORIN-SIDE 640/100x480/100+200+100 none" : "--delmonitor ORIN-SIDE";
  const std::string display = testing_support::shellQuoted(server.display());
  ASSERT_EQ(testing_support::runShell("xrandr -d " + display + " " + change).second, 0);
}

struct Seen {
  int width = 0;
  int height = 0;
  const std::uint8_t* pixels = nullptr;
  std::uint64_t presentationTime = 0;
  std::optional<teststamp::Stamp> stamp;
};

class X11CaptureTest : public ::testing::Test {
 protected:
  explicit X11CaptureTest(XServerKind kind = XServerKind::xvfb) : kind_(kind) {}

  void SetUp() override {
    if (auto missing = XServerProcess::unavailable(kind_)) GTEST_SKIP() << *missing;
    server = XServerProcess::start({kind_, "1920x1080", 30});
    ASSERT_TRUE(server) << "Xvfb did not start";
    backend = std::make_shared<X11DisplayBackend>(server->display());
  }

  void TearDown() override {
    engine.reset();
    server.reset();
  }

  void makeEngine(bool holdFrames = false) {
    engine = std::make_unique<DisplayCaptureEngine>(
        backend,
        [this, holdFrames](const CapturedFrame& frame) {
          const Seen seen{frame.width, frame.height, frame.pixels,
                          frame.presentationTimeMicroseconds,
                          teststamp::readStampedTime(frame.pixels, teststamp::PixelFormat::bgra,
                                                     frame.width, frame.height, frame.bytesPerRow)};
          std::lock_guard lock(mutex);
          frames.push_back(seen);
          if (holdFrames) held.push_back(frame);
        },
        [this](const std::optional<DisplayCaptureError>& error) {
          std::lock_guard lock(mutex);
          stops.push_back(error);
        });
  }

  std::size_t frameCount() {
    std::lock_guard lock(mutex);
    return frames.size();
  }

  std::vector<Seen> stamped() {
    std::lock_guard lock(mutex);
    std::vector<Seen> result;
    std::copy_if(frames.begin(), frames.end(), std::back_inserter(result),
                 [](const Seen& s) { return s.stamp.has_value(); });
    return result;
  }

  std::uint32_t displayNamed(const std::string& name) {
    for (const auto& d : engine->availableDisplays()) {
      if (d.name.rfind(name + " (", 0) == 0) return d.id;
    }
    ADD_FAILURE() << "no display named " << name;
    return 0;
  }

  std::unique_ptr<XServerProcess> server;
  std::shared_ptr<X11DisplayBackend> backend;
  std::unique_ptr<DisplayCaptureEngine> engine;
  std::mutex mutex;
  std::vector<Seen> frames;
  std::vector<CapturedFrame> held;
  std::vector<std::optional<DisplayCaptureError>> stops;

 private:
  XServerKind kind_;
};

class X11BareServerTest : public X11CaptureTest {
 protected:
  X11BareServerTest() : X11CaptureTest(XServerKind::bareXvfb) {}
};

TEST_F(X11CaptureTest, CapturesMovingFramesWhoseStampTellsTheirAge) {
  makeEngine();
  engine->start(displayNamed("screen"), 1280, 720, 30);
  EXPECT_EQ(engine->streamSize(), (PixelSize{1280, 720}));
  ASSERT_TRUE(eventually([&] { return stamped().size() >= 6; })) << frameCount() << " frames";
  engine->stop();

  const std::vector<Seen> seen = stamped();
  for (const auto& s : seen) {
    EXPECT_EQ(s.width, 1920);
    EXPECT_EQ(s.height, 1080);
    // A frame is timed once its pixels arrived, so the stamp it shows can only be older, however
    // loaded the machine; and not by much.
    auto age = static_cast<std::int64_t>(s.presentationTime - s.stamp->timeMicroseconds);
    EXPECT_GE(age, 0);
    EXPECT_LT(age, 1'000'000);
  }
  EXPECT_LT(seen.front().stamp->frameCounter, seen.back().stamp->frameCounter);
  std::lock_guard lock(mutex);
  EXPECT_TRUE(stops.empty());
}

TEST_F(X11CaptureTest, HeldFramesPauseTheCaptureAndTheirBuffersComeBack) {
  makeEngine(true);
  engine->start(displayNamed("screen"), 1920, 1080, 60);
  ASSERT_TRUE(eventually([&] { return frameCount() == 3; }));
  // All three shared buffers are held: no grab may write into them.
  EXPECT_FALSE(eventually([&] { return frameCount() > 3; }, 300ms));
  std::vector<const std::uint8_t*> buffers;
  {
    std::lock_guard lock(mutex);
    for (const auto& s : frames)
      buffers.push_back(s.pixels);
    held.clear();
  }
  std::sort(buffers.begin(), buffers.end());
  EXPECT_EQ(std::unique(buffers.begin(), buffers.end()), buffers.end());
  ASSERT_TRUE(eventually([&] { return frameCount() >= 5; }));
  engine->stop();
  std::lock_guard lock(mutex);
  held.clear();
  for (std::size_t i = 3; i < frames.size(); ++i) {
    EXPECT_TRUE(std::binary_search(buffers.begin(), buffers.end(), frames[i].pixels))
        << "frame " << i << " is not in a pooled buffer";
  }
}

// Listed by name; not found once removed, mid-capture and when a capture of it starts again.
TEST_F(X11CaptureTest, ListsRandRMonitorsAndNoLongerFindsOneRemoved) {
  makeEngine();
  EXPECT_EQ(engine->availableDisplays(),
            (std::vector<CapturableDisplay>{
                {displayIdForMonitorName("screen"), "screen (1920\u00D71080)", 1920, 1080}}));
  setSideMonitor(*server, true);
  auto displays = engine->availableDisplays();
  ASSERT_EQ(displays.size(), 2u);
  EXPECT_TRUE(std::count(displays.begin(), displays.end(),
                         CapturableDisplay{displayIdForMonitorName("ORIN-SIDE"),
                                           "ORIN-SIDE (640\u00D7480)", 640, 480}));
  engine->start(displayIdForMonitorName("ORIN-SIDE"), 1280, 960, 30);
  ASSERT_TRUE(eventually([&] { return frameCount() >= 2; }));
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(frames.back().width, 640);
    EXPECT_EQ(frames.back().height, 480);
  }
  setSideMonitor(*server, false);
  ASSERT_TRUE(eventually([&] {
    std::lock_guard lock(mutex);
    return !stops.empty();
  }));
  {
    std::lock_guard lock(mutex);
    ASSERT_EQ(stops.size(), 1u);
    ASSERT_TRUE(stops[0].has_value());
    EXPECT_STREQ(stops[0]->what(), "The selected display is no longer connected.");
  }
  try {
    engine->start(displayIdForMonitorName("ORIN-SIDE"), 1280, 960, 30);
    FAIL() << "started";
  } catch (const DisplayCaptureError& error) {
    EXPECT_EQ(error.kind(), DisplayCaptureError::Kind::displayNotFound);
  }
  EXPECT_FALSE(engine->isRunning());
}

TEST_F(X11BareServerTest, CapturesTheWholeScreenWithoutRandROrSharedMemory) {
  makeEngine();
  EXPECT_EQ(engine->availableDisplays(),
            (std::vector<CapturableDisplay>{
                {wholeScreenDisplayID, "Display 1 (1920\u00D71080)", 1920, 1080}}));
  engine->start(wholeScreenDisplayID, 1920, 1080, 30);
  EXPECT_TRUE(eventually([&] {
    const auto seen = stamped();
    return seen.size() >= 2 && seen.front().stamp->frameCounter < seen.back().stamp->frameCounter;
  }));
}

TEST(X11CaptureUnreachable, NamesTheDisplayItCouldNotReach) {
  const std::string name = testing_support::unservedDisplay();
  X11DisplayBackend backend(name);
  try {
    backend.displays();
    FAIL() << "listed displays of " << name;
  } catch (const DisplayCaptureError& error) {
    EXPECT_STREQ(error.what(), DisplayCaptureError::displayServerUnreachable(name).what());
  }
  EXPECT_THROW(backend.open(1), DisplayCaptureError);
}

}  // namespace
}  // namespace orin::screen
