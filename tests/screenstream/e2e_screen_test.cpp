// Screen streaming end to end: the orinlink application as a child process on free ports, an X
// server of the test's own with the animated test pattern, the control API over loopback, and
// ScreenStreamClient in the test as the headset. A loaded machine slows the stream down, so the
// checks compare what one run shows with itself rather than with the nominal rate.

#include <algorithm>
#include <memory>

#include <gtest/gtest.h>

#include "tests/screenstream/EndToEndSupport.h"
#include "tests/support/XServerProcess.h"

namespace orin::device {
namespace {

using namespace e2e;
using testing_support::XServerKind;
using testing_support::XServerProcess;

// One X server with the pattern, and the application on it.
class ScreenStreamEndToEnd : public StreamingApp {
 protected:
  void start(XServerKind kind, const std::string& size) {
    if (auto missing = XServerProcess::unavailable(kind)) GTEST_SKIP() << *missing;
    if (!testing_support::onPath("ffprobe")) GTEST_SKIP() << "ffprobe is not installed";
    x_ = XServerProcess::start({kind, size, fps});
    ASSERT_TRUE(x_) << "the X server did not start";
    launch({{"DISPLAY", x_->display()}});
  }

  std::unique_ptr<XServerProcess> x_;
};

// Xvfb's one 1280 × 720 screen, streamed as 1920 × 1080.
class EndToEndOnXvfb : public ScreenStreamEndToEnd {
 protected:
  void SetUp() override { start(XServerKind::xvfb, "1280x720"); }
};

// Xorg's dummy driver, whose spare outputs make virtual displays, with a 5:4 screen so that the
// mirror's size (1350 × 1080) tells it from a virtual display.
class EndToEndOnXorg : public ScreenStreamEndToEnd {
 protected:
  void SetUp() override { start(XServerKind::xorgDummy, "1280x1024"); }
};

// Paired with the code, the first frame is a keyframe after its configuration; so it is for a
// client that joins later, at once and with a keyframe of its own.
TEST_F(EndToEndOnXvfb, TheStreamDecodesAtItsSizeAndALaterClientGetsAFreshKeyframeAtOnce) {
  Headset headset = join("decoder");
  ASSERT_TRUE(headset.welcome.issuedToken);
  EXPECT_EQ(headset.welcome.accepted.supportsVirtualDisplays, true);
  Recording got;
  // The opening keyframe and two more: two whole periods.
  ASSERT_TRUE(
      receiveUntil(*headset.client, got, startLimit, [&] { return keyframes(got.frames) >= 3; }))
      << got.describe() << "\n"
      << app_->log();
  EXPECT_TRUE(got.sawShape(OrinScreenShape::mirror)) << got.describe();
  ASSERT_EQ(got.order.find_first_of("kf"), got.order.find('k')) << got.order;
  ASSERT_LT(got.order.find('v'), got.order.find('k')) << got.order;
  const OrinScreenVideoConfig& config = got.configs.back();
  EXPECT_EQ(std::pair(config.width, config.height),
            (std::pair<std::int64_t, std::int64_t>(1920, 1080)));
  EXPECT_EQ(config.nalLengthSize, 4);
  EXPECT_EQ(config.parameterSets.size(), 3u);
  const json state = app_->waitForState([](const json& s) {
    return s["screenStream"]["clients"] == json::array({"decoder"}) &&
           s["screenStream"]["capturing"] == true;
  });
  EXPECT_EQ(state["screenStream"]["clients"], json::array({"decoder"}));
  EXPECT_EQ(state["screenStream"]["capturing"], true);
  EXPECT_EQ(state["devices"].size(), 1u);

  // Joining right after a keyframe, a client not given one of its own would wait about 2 s for
  // the next.
  ASSERT_TRUE(got.frames.back().keyframe);
  const std::uint64_t newestBefore = got.frames.back().presentationTime;
  Headset second = join("second");
  Recording secondGot;
  ASSERT_TRUE(receiveFrames(*second.client, secondGot, 1)) << secondGot.order;
  ASSERT_EQ(secondGot.order.find_first_of("kf"), secondGot.order.find('k')) << secondGot.order;
  ASSERT_LT(secondGot.order.find('v'), secondGot.order.find('k')) << secondGot.order;
  EXPECT_EQ(secondGot.configs.front(), got.configs.back());
  const Frame keyframe = secondGot.frames.front();
  EXPECT_GT(keyframe.presentationTime, newestBefore) << "an old keyframe was replayed";
  // It is the next frame the encoder starts: one captured while the encoder was busy with the
  // frame before, or the one captured as the encoder becomes free. That is sooner than the
  // keyframe a waiting client asks for by itself, 500 ms after it was accepted, unless frames
  // come further apart than that.
  const auto captured = static_cast<std::int64_t>(keyframe.presentationTime - second.acceptedAt);
  const std::int64_t framePace = pace(got.since(newestBefore - oneSecond));
  EXPECT_GE(captured, -framePace);
  EXPECT_LT(captured, std::max<std::int64_t>(recoverySpacing, 2 * framePace))
      << "no keyframe was forced: captured " << captured << " us after acceptance, frames "
      << framePace << " us apart at most";

  EXPECT_TRUE(decodes(got, directory_.path() / "stream.hevc", {{1920, 1080}}));
}

TEST_F(EndToEndOnXorg, AnUltrawideShapeStreamsAVirtualDisplayAndMirrorReturns) {
  Headset headset = join("wide");
  ASSERT_EQ(headset.welcome.accepted.supportsVirtualDisplays, true);
  Recording got;
  ASSERT_TRUE(receiveUntil(*headset.client, got, startLimit, [&] {
    return got.keyframeOfSize(0, 1350, 1080);
  })) << got.order;

  reshape(headset, got, OrinScreenShape::ultrawide, 2580);
  EXPECT_EQ(app_->state()["screenStream"]["settings"]["virtualDisplayPreset"], 1);
  reshape(headset, got, OrinScreenShape::mirror, 1350);
  EXPECT_EQ(app_->state()["screenStream"]["settings"]["virtualDisplayPreset"], 0);

  // The whole recording, across both changes of size, decodes.
  EXPECT_TRUE(
      decodes(got, directory_.path() / "shapes.hevc", {{1350, 1080}, {2580, 1080}, {1350, 1080}}));
}

}  // namespace
}  // namespace orin::device
