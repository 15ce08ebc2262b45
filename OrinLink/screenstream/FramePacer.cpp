#include "OrinLink/screenstream/FramePacer.h"

namespace orin::screen {

void FramePacer::offered() {
  std::lock_guard lock(mutex_);
  waiting_ = true;
}

void FramePacer::started() {
  std::lock_guard lock(mutex_);
  waiting_ = false;
  busy_ = true;
}

void FramePacer::finished() {
  std::function<void()> wake;
  {
    std::lock_guard lock(mutex_);
    busy_ = false;
    wake = wake_;
  }
  if (wake) wake();
}

bool FramePacer::wantsFrame() const {
  std::lock_guard lock(mutex_);
  return !waiting_ && !busy_;
}

void FramePacer::setWake(std::function<void()> wake) {
  std::lock_guard lock(mutex_);
  wake_ = std::move(wake);
}

}  // namespace orin::screen
