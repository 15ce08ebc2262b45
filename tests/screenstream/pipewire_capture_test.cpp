// The PipeWire screen-cast consumer against a PipeWire and WirePlumber of the test's own, fed by
// a test source whose pictures carry their number in every pixel.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "OrinLink/screenstream/DisplayCaptureError.h"
#include "OrinLink/screenstream/PipeWireCapture.h"

#include "tests/support/Eventually.h"
#include "tests/support/PipeWireDaemon.h"
#include "tests/support/PipeWireProducer.h"

namespace orin::screen {
namespace {

using namespace std::chrono_literals;
using testing_support::eventually;
using testing_support::PipeWireEnvironment;
using testing_support::PipeWireProducer;
using Kind = DisplayCaptureError::Kind;

[[maybe_unused]] const auto* const pipeWire =
    ::testing::AddGlobalTestEnvironment(new PipeWireEnvironment);

// The number (modulo 256) of the source's picture that `frame` shows, when all of it is that one.
std::optional<std::uint8_t> pictureShown(const CapturedFrame& frame) {
  const std::uint8_t n = frame.pixels[2];
  for (int y = 0; y < frame.height; ++y) {
    const std::uint8_t* row = frame.pixels + static_cast<std::ptrdiff_t>(y) * frame.bytesPerRow;
    for (int x = 0; x < frame.width; ++x) {
      const auto expected =
          PipeWireProducer::pixel(static_cast<std::uint32_t>(x), static_cast<std::uint32_t>(y), n);
      if (!std::equal(expected.begin(), expected.end(), row + 4 * x)) return std::nullopt;
    }
  }
  return n;
}

// The kind of DisplayCaptureError `call` throws; nothing when it throws none.
template <typename Call>
std::optional<Kind> kindThrownBy(Call call) {
  try {
    call();
  } catch (const DisplayCaptureError& error) {
    return error.kind();
  }
  return std::nullopt;
}

class PipeWireCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (auto why = PipeWireEnvironment::skipReason()) GTEST_SKIP() << *why;
    ASSERT_TRUE(PipeWireEnvironment::daemon()) << PipeWireEnvironment::startFailure();
  }

  void produce(PipeWireProducer::Options options = {}) {
    producer = PipeWireProducer::start(*PipeWireEnvironment::daemon(), options);
    ASSERT_TRUE(producer) << "the test source did not start";
  }

  PipeWireTarget sourceTarget() const {
    PipeWireTarget target;
    target.nodeId = producer->nodeId();
    target.framesPerSecond = 30;
    return target;
  }

  std::unique_ptr<PipeWireProducer> producer;
};

TEST_F(PipeWireCaptureTest, FramesArriveAtTheSourcesSizeWithItsPixels) {
  ASSERT_NO_FATAL_FAILURE(produce({320, 240}));
  // Through a connection of its own, as the portal hands one out.
  auto own = sourceTarget();
  own.remoteFd = PipeWireEnvironment::daemon()->connect();
  std::shared_ptr<PipeWireCapture> capture = PipeWireCapture::open(own, 10s);
  EXPECT_EQ(capture->width(), 320u);
  EXPECT_EQ(capture->height(), 240u);

  auto session = std::make_shared<int>(0);
  auto source = makePipeWireFrameSource(capture, session);
  auto frame = source->grab();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->width, 320);
  EXPECT_EQ(frame->height, 240);
  EXPECT_EQ(frame->bytesPerRow, 320 * 4);
  const auto first = pictureShown(*frame);
  ASSERT_TRUE(first) << "the frame is not one of the source's pictures";
  EXPECT_TRUE(eventually([&] {
    auto next = source->grab();
    return next && pictureShown(*next).value_or(*first) != *first;
  })) << "no newer picture came";

  EXPECT_EQ(session.use_count(), 2);
  source.reset();
  EXPECT_EQ(session.use_count(), 1);
}

TEST_F(PipeWireCaptureTest, AStillSourceGivesItsLastPictureAgainWithFreshStamps) {
  ASSERT_NO_FATAL_FAILURE(produce());
  auto capture = PipeWireCapture::open(sourceTarget(), 10s);
  producer->setPaused(true);
  std::this_thread::sleep_for(200ms);

  auto before = capture->latest();
  std::this_thread::sleep_for(30ms);
  auto after = capture->latest();
  ASSERT_TRUE(before && after);
  EXPECT_EQ(before->pixels, after->pixels);
  EXPECT_EQ(pictureShown(*before), pictureShown(*after));
  EXPECT_GE(after->presentationTimeMicroseconds, before->presentationTimeMicroseconds + 30'000);
  EXPECT_LE(after->presentationTimeMicroseconds, monotonicMicroseconds());
}

TEST_F(PipeWireCaptureTest, AHeldFrameKeepsItsPixelsWhileTheSourceGoesOn) {
  ASSERT_NO_FATAL_FAILURE(produce());
  auto capture = PipeWireCapture::open(sourceTarget(), 10s);
  auto held = capture->latest();
  ASSERT_TRUE(held);
  const auto shown = pictureShown(*held);
  ASSERT_TRUE(shown);

  // More pictures than there are buffers, each read as the encoder would.
  const auto sent = producer->framesSent();
  std::optional<std::uint8_t> newest;
  ASSERT_TRUE(eventually([&] {
    if (auto frame = capture->latest()) newest = pictureShown(*frame);
    return producer->framesSent() > sent + 40;
  }));
  EXPECT_TRUE(newest && *newest != *shown) << "the capture did not move on";
  EXPECT_EQ(pictureShown(*held), shown) << "the held buffer was written over";
  // It outlives the capture too; the stream closes with it, on this thread.
  capture.reset();
  EXPECT_EQ(pictureShown(*held), shown);
  held.reset();
}

TEST_F(PipeWireCaptureTest, TheSourceGoingAwayEndsTheSharing) {
  ASSERT_NO_FATAL_FAILURE(produce());
  auto capture = PipeWireCapture::open(sourceTarget(), 10s);
  auto held = capture->latest();
  ASSERT_TRUE(held);
  const auto shown = pictureShown(*held);

  producer->disconnect();
  EXPECT_TRUE(eventually(
      [&] { return kindThrownBy([&] { capture->latest(); }) == Kind::sharingEnded; }, 5s));
  // The frame's memory stays with the frame, not with the stream that let go of it.
  EXPECT_EQ(pictureShown(*held), shown);
}

// From buffers that PipeWire allocates, not the source.
TEST_F(PipeWireCaptureTest, AFixedSizeIsWhatTheSourceIsAskedFor) {
  ASSERT_NO_FATAL_FAILURE(produce({640, 480, true, 30, false}));
  auto fixed = sourceTarget();
  fixed.width = 320;
  fixed.height = 200;
  auto capture = PipeWireCapture::open(fixed, 10s);
  EXPECT_EQ(producer->size(), std::pair(320u, 200u));
  EXPECT_EQ(capture->width(), 320u);
  EXPECT_EQ(capture->height(), 200u);
  auto frame = capture->latest();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->width, 320);
  EXPECT_EQ(frame->height, 200);
  EXPECT_TRUE(pictureShown(*frame));
}

TEST_F(PipeWireCaptureTest, OpeningWithoutItsNodeFailsSoon) {
  PipeWireTarget target;
  target.nodeId = 1'000'000;
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(kindThrownBy([&] { PipeWireCapture::open(target, 20s); }), Kind::sharingEnded);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
}

TEST_F(PipeWireCaptureTest, ASourceThatSendsNothingTimesOut) {
  ASSERT_NO_FATAL_FAILURE(produce());
  producer->setPaused(true);
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(kindThrownBy([&] { PipeWireCapture::open(sourceTarget(), 1s); }), Kind::sharingSilent);
  EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
}

TEST_F(PipeWireCaptureTest, NoDaemonIsPipeWireUnavailable) {
  PipeWireTarget target;
  target.nodeId = 1'000'000;
  ::setenv("PIPEWIRE_REMOTE", "orin-no-such-daemon", 1);
  EXPECT_EQ(kindThrownBy([&] { PipeWireCapture::open(target, 5s); }), Kind::pipeWireUnavailable);
  ::unsetenv("PIPEWIRE_REMOTE");

  // A portal's connection whose other end hung up.
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  ::close(ends[1]);
  target.remoteFd = ends[0];
  EXPECT_EQ(kindThrownBy([&] { PipeWireCapture::open(target, 5s); }), Kind::pipeWireUnavailable);
}

}  // namespace
}  // namespace orin::screen
