#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLink/screenstream/FrameMailbox.h"
#include "OrinLink/screenstream/KeyframePolicy.h"
#include "OrinLink/screenstream/VideoEncoder.h"

namespace orin::screen {
namespace {

constexpr std::uint64_t twoSeconds = 2'000'000;

TEST(KeyframePolicy, RequestsBeforeAFrameCountOnce) {
  KeyframePolicy policy(twoSeconds, 30);
  policy.request();
  policy.request();
  EXPECT_TRUE(policy.forceFrame(0));
  EXPECT_FALSE(policy.requested());
  EXPECT_FALSE(policy.forceFrame(33'333));
  policy.request();
  EXPECT_TRUE(policy.forceFrame(66'666));
  EXPECT_FALSE(policy.forceFrame(99'999));
}

// Whatever rate frames really come at, keyframes (the encoder's first, then the forced ones)
// are two seconds apart at most, with room for a frame that comes half a gap late, and not much
// closer than that; slow frames are not all keyframes.
TEST(KeyframePolicy, KeepsKeyframesWithinTwoSecondsAtAnyFrameRate) {
  struct Case {
    int framesPerSecond;
    std::uint64_t gap;
    std::uint64_t expectedInterval;
  };
  for (const Case c :
       {Case{30, 33'333, 59 * 33'333}, Case{60, 16'666, 119 * 16'666},
        Case{60, 16'000, 124 * 16'000}, Case{60, 100'000, 1'900'000}, Case{30, 300'000, 1'800'000},
        Case{30, 900'000, 1'800'000}, Case{30, 2'500'000, 2'500'000}}) {
    KeyframePolicy policy(twoSeconds, c.framesPerSecond);
    std::vector<std::uint64_t> keyframes;
    for (std::uint64_t time = 1'000; time < 7 * twoSeconds; time += c.gap) {
      if (policy.forceFrame(time) || keyframes.empty()) keyframes.push_back(time);
    }
    ASSERT_GE(keyframes.size(), 3u) << c.gap;
    for (std::size_t i = 1; i < keyframes.size(); ++i)
      EXPECT_EQ(keyframes[i] - keyframes[i - 1], c.expectedInterval) << c.gap << " #" << i;
  }
}

// Under load the encoder's pace is uneven: a short gap followed by a long one must not carry the
// keyframe past its bound.
TEST(KeyframePolicy, KeepsTheBoundWhenGapsVary) {
  KeyframePolicy policy(twoSeconds, 15);
  std::uint64_t seed = 1;
  std::uint64_t time = 0;
  std::uint64_t lastKeyframe = 0;
  std::uint64_t longest = 0;
  for (int frame = 0; frame < 2'000; ++frame) {
    seed = seed * 6364136223846793005u + 1442695040888963407u;
    time += 40'000 + (seed >> 33) % 360'000;  // 40 to 400 ms
    if (policy.forceFrame(time) || frame == 0) {
      longest = std::max(longest, time - lastKeyframe);
      lastKeyframe = time;
    }
  }
  EXPECT_LE(longest, twoSeconds);
}

// The time of the first frame forced in a run of evenly spaced frames, 0 when none was.
std::uint64_t firstForced(KeyframePolicy& policy, std::uint64_t from, std::uint64_t until,
                          std::uint64_t step) {
  for (std::uint64_t time = from; time <= until; time += step) {
    if (policy.forceFrame(time)) return time;
  }
  return 0;
}

TEST(KeyframePolicy, CountsFromTheLatestKeyframe) {
  KeyframePolicy policy(twoSeconds, 10);
  EXPECT_EQ(firstForced(policy, 0, 500'000, 100'000), 0u);
  policy.keyframeEmitted(500'000);
  EXPECT_EQ(firstForced(policy, 600'000, 5'000'000, 100'000), 2'400'000u);
  // A clock that went back (another capture source) starts the count again.
  EXPECT_EQ(firstForced(policy, 100, 5'000'000, 100'000), 1'900'100u);
}

// Counts live values, so a test can see when the mailbox released one.
struct Tracked {
  int value = 0;
  std::shared_ptr<int> token = std::make_shared<int>(0);
};

TEST(FrameMailbox, NewestValueWinsAndReplacedOnesAreReleasedAtOnce) {
  FrameMailbox<Tracked> mailbox;
  Tracked first{1}, second{2}, third{3};
  std::weak_ptr<int> firstToken = first.token, secondToken = second.token;

  EXPECT_TRUE(mailbox.put(std::move(first)));
  EXPECT_TRUE(mailbox.put(std::move(second)));
  EXPECT_TRUE(firstToken.expired());
  EXPECT_TRUE(mailbox.put(std::move(third)));
  EXPECT_TRUE(secondToken.expired());
  EXPECT_EQ(mailbox.replacedCount(), 2u);
  EXPECT_EQ(mailbox.take()->value, 3);

  Tracked fourth{4};
  std::weak_ptr<int> fourthToken = fourth.token;
  EXPECT_TRUE(mailbox.put(std::move(fourth)));
  EXPECT_EQ(mailbox.replacedCount(), 2u);
  mailbox.close();
  EXPECT_TRUE(fourthToken.expired());
  EXPECT_FALSE(mailbox.take());

  Tracked late{5};
  std::weak_ptr<int> lateToken = late.token;
  EXPECT_FALSE(mailbox.put(std::move(late)));
  EXPECT_TRUE(lateToken.expired());
}

TEST(VideoEncoderError, DescribesTheLibraryStatus) {
  EXPECT_EQ(VideoEncoderError::encodeFailed(-1094995529).description(),
            "Encoding a frame failed (libavcodec error -1094995529).");
  EXPECT_EQ(VideoEncoderError::encodeFailed(0).kind(), VideoEncoderError::Kind::encodeFailed);
  EXPECT_EQ(VideoEncoderError::sessionCreationFailed(-12).status(), -12);
}

}  // namespace
}  // namespace orin::screen
