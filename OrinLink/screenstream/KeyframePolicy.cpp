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
  // The next frame is expected one gap later (the nominal one at least), give or take half a gap
  // of capture jitter: if that could be too late for a keyframe, this frame is the last that
  // keeps the bound.
  const std::uint64_t gap = std::max(time - *previousFrame_, nominalGap_);
  previousFrame_ = time;
  if (time - *lastKeyframe_ + gap + gap / 2 > maxInterval_) force = true;
  if (force) lastKeyframe_ = time;
  return force;
}

void KeyframePolicy::keyframeEmitted(std::uint64_t time) {
  if (!lastKeyframe_ || time > *lastKeyframe_) lastKeyframe_ = time;
}

}  // namespace orin::screen
