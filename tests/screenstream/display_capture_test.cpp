#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLink/screenstream/DisplayCaptureEngine.h"
#include "OrinLink/screenstream/FramePool.h"
#include "OrinLink/screenstream/X11DisplayBackend.h"

#include "ScreenTestFakes.h"
#include "tests/support/Eventually.h"

namespace orin::screen {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

TEST(DisplayNaming, UsesTheScreenNameOrTheIdThenThePointSize) {
  struct Case {
    std::uint32_t id;
    std::optional<std::string> screenName;
    int width, height;
    const char* expected;
  } cases[] = {
      {2, std::nullopt, 1920, 1080, "Display 2 (1920\u00D71080)"},
      {4000000000u, std::nullopt, 0, 0, "Display 4000000000 (0\u00D70)"},
      {7, "DELL U2720Q", 3840, 2160, "DELL U2720Q (3840\u00D72160)"},
      {7, "", 800, 600, " (800\u00D7600)"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(displayName(c.id, c.screenName, c.width, c.height), c.expected);
  }
}

TEST(CaptureSize, KeepsTheAspectRatioAtTheRequestedHeightWithAnEvenWidth) {
  struct Case {
    int displayWidth, displayHeight, pixelHeight;
    PixelSize expected;
  } cases[] = {
      {1920, 1080, 1440, {2560, 1440}},
      {3024, 1964, 1440, {2218, 1440}},  // 2217.2 rounds to the nearest even width
      {3440, 1440, 1080, {2580, 1080}},
      {1000, 1000, 719, {720, 719}},  // 719 is odd; only the width is made even
      {1920, 0, 1440, {2560, 1440}},  // no height reported: 16:9
      {1920, -5, 1080, {1920, 1080}},
      {1, 1000, 1080, {2, 1080}},  // never narrower than two pixels
  };
  for (const auto& c : cases) {
    EXPECT_EQ(captureSize(c.displayWidth, c.displayHeight, c.pixelHeight), c.expected)
        << c.displayWidth << "x" << c.displayHeight << " at " << c.pixelHeight;
  }
}

TEST(DisplayCaptureError, CarriesTheUserFacingText) {
  using Kind = DisplayCaptureError::Kind;
  struct Case {
    DisplayCaptureError error;
    Kind kind;
    const char* text;
  } cases[] = {
      {DisplayCaptureError::displayNotFound(), Kind::displayNotFound,
       "The selected display is no longer connected."},
      {DisplayCaptureError::noDisplayAvailable(), Kind::noDisplayAvailable,
       "No display available to capture."},
      {DisplayCaptureError::permissionDenied("denied"), Kind::permissionDenied,
       "Screen Recording permission is required. Allow Orin Link in System Settings > Privacy & "
       "Security > Screen Recording, then quit and reopen the app. (denied)"},
      {DisplayCaptureError::displayServerUnreachable(":7"), Kind::displayServerUnreachable,
       "Could not connect to the X display \":7\". Start Orin Link inside your desktop session, "
       "or set DISPLAY to its display."},
      {DisplayCaptureError::displayServerUnreachable(""), Kind::displayServerUnreachable,
       "No X display to capture: DISPLAY is not set. Start Orin Link inside your desktop "
       "session."},
      {DisplayCaptureError::connectionLost(), Kind::connectionLost,
       "The connection to the X display was lost."},
      {DisplayCaptureError::unsupportedFormat(16), Kind::unsupportedFormat,
       "The display's pixel format (depth 16) cannot be captured."},
      {DisplayCaptureError::captureFailed("X11", 8), Kind::captureFailed,
       "Could not capture the display (X11 error 8)."},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.error.kind(), c.kind);
    EXPECT_STREQ(c.error.what(), c.text);
  }
}

std::vector<std::uint8_t> edidWithDescriptor(std::size_t at, std::uint8_t tag,
                                             const std::string& text) {
  std::vector<std::uint8_t> edid(128, 0x11);
  for (std::size_t d : {54u, 72u, 90u, 108u})
    edid[d] = 0x01;  // timing descriptors
  std::fill_n(edid.begin() + static_cast<std::ptrdiff_t>(at), 18, 0x20);
  edid[at] = edid[at + 1] = edid[at + 2] = edid[at + 4] = 0;
  edid[at + 3] = tag;
  std::copy(text.begin(), text.end(), edid.begin() + static_cast<std::ptrdiff_t>(at) + 5);
  return edid;
}

TEST(EdidMonitorName, ReadsTheNameDescriptorWherever) {
  struct Case {
    std::vector<std::uint8_t> edid;
    std::optional<std::string> expected;
  } cases[] = {
      {edidWithDescriptor(72, 0xFC, "DELL U2720Q\n"), "DELL U2720Q"},
      {edidWithDescriptor(108, 0xFC, "ABCDEFGHIJKLM"), "ABCDEFGHIJKLM"},  // 13 characters
      {edidWithDescriptor(90, 0xFF, "SERIAL123\n"), std::nullopt},        // a serial number
      {edidWithDescriptor(54, 0xFC, "\n"), std::nullopt},
      {std::vector<std::uint8_t>(100, 0), std::nullopt},
  };
  for (const auto& c : cases)
    EXPECT_EQ(edidMonitorName(c.edid), c.expected);
}

TEST(DisplayId, StaysTheSameForAMonitorNameAcrossReleases) {
  // Saved in the settings: changing the hash would lose every user's choice of display.
  EXPECT_EQ(displayIdForMonitorName("DP-1"), 498784119u);
  EXPECT_EQ(displayIdForMonitorName("HDMI-A-0"), 1194353736u);
  EXPECT_NE(displayIdForMonitorName("DP-2"), displayIdForMonitorName("DP-1"));
}

TEST(BlendCursor, CompositesPremultipliedPixelsAndClipsAtTheEdges) {
  constexpr int w = 4;
  constexpr int h = 3;
  auto blank = [] {
    std::array<std::uint8_t, w * h * 4> image{};
    image.fill(100);
    return image;
  };
  auto pixel = [](const auto& image, int x, int y) {
    const std::uint8_t* p = &image[static_cast<std::size_t>((y * w + x) * 4)];
    return std::array<int, 3>{p[0], p[1], p[2]};
  };
  // ARGB: opaque red, half-transparent premultiplied blue, fully transparent.
  const std::uint32_t cursor[] = {0xFFFF0000, 0x80000080, 0x00000000, 0xFFFFFFFF};

  auto image = blank();
  blendCursor(image.data(), w, h, w * 4, cursor, 2, 2, 1, 1);
  EXPECT_EQ(pixel(image, 1, 1), (std::array<int, 3>{0, 0, 255}));      // BGR of red
  EXPECT_EQ(pixel(image, 2, 1), (std::array<int, 3>{178, 50, 50}));    // 128 + 100 * 127 / 255
  EXPECT_EQ(pixel(image, 1, 2), (std::array<int, 3>{100, 100, 100}));  // transparent
  EXPECT_EQ(pixel(image, 2, 2), (std::array<int, 3>{255, 255, 255}));
  EXPECT_EQ(pixel(image, 0, 0), (std::array<int, 3>{100, 100, 100}));

  struct Offset {
    int left, top;
    int x, y;
    std::array<int, 3> expected;
  } offsets[] = {
      {-1, -1, 0, 0, {255, 255, 255}},  // only the cursor's last pixel is inside
      {3, 2, 3, 2, {0, 0, 255}},        // only its first
      {-1, 2, 0, 2, {178, 50, 50}},
  };
  for (const auto& o : offsets) {
    auto clipped = blank();
    blendCursor(clipped.data(), w, h, w * 4, cursor, 2, 2, o.left, o.top);
    EXPECT_EQ(pixel(clipped, o.x, o.y), o.expected) << o.left << "," << o.top;
  }
  auto away = blank();
  blendCursor(away.data(), w, h, w * 4, cursor, 2, 2, 10, -10);
  EXPECT_EQ(away, blank());
}

TEST(FramePool, LendsEachBufferOnceUntilItsLastOwnerLetsGo) {
  std::array<std::uint8_t, 3> bytes{};
  auto storageAlive = std::make_shared<bool>(true);
  std::weak_ptr<bool> storageWatch = storageAlive;
  auto pool = FramePool::create({&bytes[0], &bytes[1], &bytes[2]}, std::move(storageAlive));

  auto a = pool->acquire();
  auto b = pool->acquire();
  auto c = pool->acquire();
  ASSERT_TRUE(a && b && c);
  EXPECT_FALSE(pool->acquire());
  std::vector<std::uint8_t*> lent = {a->data, b->data, c->data};
  std::sort(lent.begin(), lent.end());
  EXPECT_EQ(std::unique(lent.begin(), lent.end()), lent.end());

  auto copy = b->owner;
  b.reset();
  EXPECT_FALSE(pool->acquire());  // a copy of the frame still holds it
  auto* held = copy.get();
  copy.reset();
  auto again = pool->acquire();
  ASSERT_TRUE(again);
  EXPECT_EQ(again->data, held);

  // Frames outlive the pool and the capture; the storage goes with the last of them.
  pool.reset();
  a.reset();
  again.reset();
  EXPECT_FALSE(storageWatch.expired());
  c.reset();
  EXPECT_TRUE(storageWatch.expired());
}

struct CaptureState : fake::DisplayState {
  int frames = 0;
  std::vector<std::optional<DisplayCaptureError>> stops;
};

class CaptureEngineTest : public ::testing::Test {
 protected:
  CaptureEngineTest() {
    state.displays = {{1, "Built-in", 3440, 1440}, {9, std::nullopt, 800, 600}};
  }

  DisplayCaptureEngine makeEngine(std::function<void(const CapturedFrame&)> extra = {}) {
    return DisplayCaptureEngine(
        std::make_shared<fake::FakeDisplays>(state),
        [this, extra](const CapturedFrame& frame) {
          state.record([&] { ++state.frames; });
          if (extra) extra(frame);
        },
        [this](const std::optional<DisplayCaptureError>& error) {
          state.record([&] { state.stops.push_back(error); });
        });
  }

  int frames() {
    return state.read([&] { return state.frames; });
  }

  CaptureState state;
};

TEST_F(CaptureEngineTest, GrabsNoFasterThanTheFrameRate) {
  auto engine = makeEngine();
  auto begin = Clock::now();
  engine.start(1, 1280, 720, 50);
  EXPECT_EQ(engine.streamSize(), (PixelSize{1720, 720}));
  ASSERT_TRUE(state.eventually([&] { return state.frames >= 10; }));
  engine.stop();
  auto elapsed = Clock::now() - begin;
  std::lock_guard lock(state.mutex);
  EXPECT_LE(static_cast<long>(state.grabStarts.size()), elapsed / 20ms + 1);
  EXPECT_EQ(state.liveSources, 0);
  EXPECT_TRUE(state.stops.empty());  // a requested stop is not reported
}

TEST_F(CaptureEngineTest, ASlowGrabSkipsTicksInsteadOfCatchingUp) {
  state.grabCost = 60ms;  // one and a half frame intervals at 25 fps
  auto engine = makeEngine();
  engine.start(1, 1280, 720, 25);
  ASSERT_TRUE(state.eventually([&] { return state.frames >= 7; }));
  engine.stop();
  // The next grab waits for the next tick on the grid, half an interval after a grab ends if
  // the grab took as long as asked. Catching up would start it at once, every time.
  std::lock_guard lock(state.mutex);
  std::size_t immediate = 0;
  for (std::size_t i = 1; i < state.grabStarts.size(); ++i) {
    if (state.grabStarts[i] - state.grabEnds[i - 1] < 1ms) ++immediate;
  }
  EXPECT_LT(immediate * 2, state.grabStarts.size() - 1) << immediate << " grabs without a wait";
}

TEST_F(CaptureEngineTest, APacedCaptureGrabsOnlyWhenTheConsumerIsFree) {
  auto pacer = std::make_shared<FramePacer>();
  auto engine = makeEngine([&](const CapturedFrame&) { pacer->offered(); });
  engine.start(1, 1280, 720, 1000, pacer);
  ASSERT_TRUE(state.eventually([&] { return state.frames == 1; }));
  // Neither a frame still waiting nor one being worked on is a reason to grab another; at this
  // rate an unpaced capture would grab dozens meanwhile.
  const auto settle = [] { std::this_thread::sleep_for(30ms); };
  settle();
  EXPECT_EQ(frames(), 1);
  pacer->started();
  settle();
  EXPECT_EQ(frames(), 1);
  pacer->finished();
  ASSERT_TRUE(state.eventually([&] { return state.frames == 2; }));
  engine.stop();
}

TEST_F(CaptureEngineTest, ADisplayThatGoesAwayStopsTheCaptureOnce) {
  state.grabsLeft = 3;
  auto engine = makeEngine();
  engine.start(9, 1280, 720, 100);
  ASSERT_TRUE(state.eventually([&] { return state.stops.size() == 1; }));
  ASSERT_TRUE(testing_support::eventually([&] { return !engine.isRunning(); }));
  EXPECT_EQ(frames(), 3);
  engine.stop();
  std::lock_guard lock(state.mutex);
  ASSERT_EQ(state.stops.size(), 1u);
  ASSERT_TRUE(state.stops[0].has_value());
  EXPECT_EQ(state.stops[0]->kind(), DisplayCaptureError::Kind::displayNotFound);
}

TEST_F(CaptureEngineTest, HandlersMayStopTheCaptureThemselves) {
  DisplayCaptureEngine* self = nullptr;
  auto engine = makeEngine([&](const CapturedFrame&) { self->stop(); });
  self = &engine;
  engine.start(1, 1280, 720, 100);
  ASSERT_TRUE(state.eventually([&] { return state.liveSources == 0; }));
  EXPECT_EQ(frames(), 1);
  EXPECT_FALSE(engine.isRunning());

  // And the engine starts again afterwards.
  engine.start(1, 1280, 720, 100);
  ASSERT_TRUE(state.eventually([&] { return state.frames == 2 && state.liveSources == 0; }));
}

}  // namespace
}  // namespace orin::screen
