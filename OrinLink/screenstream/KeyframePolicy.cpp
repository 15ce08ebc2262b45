#include "OrinLink/screenstream/KeyframePolicy.h"

#include <algorithm>

namespace orin::screen {

KeyframePolicy::KeyframePolicy(std::uint64_t maxIntervalMicroseconds, int framesPerSecond)
    : maxInterval_(maxIntervalMicroseconds),
      nominalGap_(1'000'000u / static_cast<std::uint64_t>(std::max(framesPerSecond, 1))) {}

bool KeyframePolicy::forceFrame(std::uint64_t time) {
  bool force = requested_.exchange(false);
  // The encoder opens with a keyframe unasked; a clock that went back starts over likewise.
  if (!lastKeyframe_ || time < *previousFrame_ || time < *lastKeyframe_) {
    lastKeyframe_ = time;
    previousFrame_ = time;
    return force;
  }
  // The next frame may come as late as the longest recent gap (the nominal one at least) and half
  // as much again: if that could be too late for a keyframe, this frame is the last that keeps
  // the bound. A load that makes the rate uneven thus brings keyframes earlier, never late.
  const std::uint64_t gap = std::max(time - *previousFrame_, nominalGap_);
  previousFrame_ = time;
  recentLongestGap_ = std::max(gap, recentLongestGap_ - recentLongestGap_ / 32);
  const std::uint64_t latest = recentLongestGap_ + recentLongestGap_ / 2;
  // Frames slowed down by load would otherwise all become keyframes, each costing twice a
  // predicted one and slowing the next ones further; from half the bound on, the prediction
  // decides.
  const std::uint64_t sinceKeyframe = time - *lastKeyframe_;
  if (sinceKeyframe + latest > maxInterval_ && 2 * sinceKeyframe >= maxInterval_) force = true;
  if (force) lastKeyframe_ = time;
  return force;
}

void KeyframePolicy::keyframeEmitted(std::uint64_t time) {
  if (!lastKeyframe_ || time > *lastKeyframe_) lastKeyframe_ = time;
}

}  // namespace orin::screen
