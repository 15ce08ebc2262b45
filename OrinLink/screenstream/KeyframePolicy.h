#pragma once

#include <atomic>
#include <cstdint>
#include <optional>

namespace orin::screen {

// Which submitted frames must be coded as IDR pictures: the next one after a request (requests
// made before it count once), and the last frame before the gap since the previous keyframe
// would exceed `maxInterval` of presentation time, but not within half of it, so that a slow
// stream is not all keyframes. The encoder's own keyframe interval counts frames, which stretch
// in time when frames are dropped under load.
class KeyframePolicy {
 public:
  KeyframePolicy(std::uint64_t maxIntervalMicroseconds, int framesPerSecond);

  // Any thread.
  void request() { requested_.store(true); }
  bool requested() const { return requested_.load(); }

  // Encoder thread: takes a pending request.
  bool forceFrame(std::uint64_t presentationTimeMicroseconds);
  // Encoder thread: the encoder emitted a keyframe, asked for or of its own accord.
  void keyframeEmitted(std::uint64_t presentationTimeMicroseconds);

 private:
  std::atomic<bool> requested_{false};
  std::uint64_t maxInterval_;
  std::uint64_t nominalGap_;
  std::optional<std::uint64_t> lastKeyframe_;
  std::optional<std::uint64_t> previousFrame_;
  // The longest recent gap between frames, fading by a thirty-second a frame.
  std::uint64_t recentLongestGap_ = 0;
};

}  // namespace orin::screen
