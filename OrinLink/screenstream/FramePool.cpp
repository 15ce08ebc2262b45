#include "OrinLink/screenstream/FramePool.h"

namespace orin::screen {

std::shared_ptr<FramePool> FramePool::create(std::vector<std::uint8_t*> buffers,
                                             std::shared_ptr<const void> storage) {
  return std::shared_ptr<FramePool>(new FramePool(std::move(buffers), std::move(storage)));
}

FramePool::FramePool(std::vector<std::uint8_t*> buffers, std::shared_ptr<const void> storage)
    : buffers_(std::move(buffers)), storage_(std::move(storage)) {
  // Lent from the back, so the lowest index goes first and a lone frame keeps reusing it.
  for (std::size_t i = buffers_.size(); i > 0; --i)
    free_.push_back(i - 1);
}

std::optional<FramePool::Lease> FramePool::acquire() {
  std::size_t index = 0;
  {
    std::lock_guard lock(mutex_);
    if (free_.empty()) return std::nullopt;
    index = free_.back();
    free_.pop_back();
  }
  auto self = shared_from_this();
  std::uint8_t* data = buffers_[index];
  return Lease{index, data, std::shared_ptr<const void>(data, [self, index](const void*) {
                 self->release(index);
               })};
}

std::size_t FramePool::available() const {
  std::lock_guard lock(mutex_);
  return free_.size();
}

void FramePool::release(std::size_t index) {
  std::lock_guard lock(mutex_);
  free_.push_back(index);
}

}  // namespace orin::screen
