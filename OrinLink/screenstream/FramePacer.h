#pragma once

#include <functional>
#include <mutex>

namespace orin::screen {

// Paces a frame producer to its consumer: the next frame is made only once the consumer is free
// to take it. A frame made earlier would wait and grow stale, or be replaced by a newer one after
// costing its grab. Any thread.
class FramePacer {
 public:
  // Producer: a frame waits for the consumer.
  void offered();
  // Consumer: took the waiting frame and works on it.
  void started();
  // Consumer: done with the frame it took.
  void finished();

  // Producer: whether a frame is wanted now.
  bool wantsFrame() const;
  // Producer: called on the consumer's thread when it becomes free. Empty to stop hearing it.
  void setWake(std::function<void()> wake);

 private:
  mutable std::mutex mutex_;
  bool waiting_ = false;
  bool busy_ = false;
  std::function<void()> wake_;
};

}  // namespace orin::screen
