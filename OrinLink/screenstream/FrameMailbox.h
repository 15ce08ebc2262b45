#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>

namespace orin::screen {

// Holds at most one value between a producer that must never wait and a consumer thread: a new
// value replaces one still waiting, so the consumer always gets the newest and nothing queues.
// Values are released outside the lock, as releasing one may run a capture buffer's deleter.
template <typename T>
class FrameMailbox {
 public:
  // False when the mailbox is closed and the value was dropped.
  bool put(T value) {
    std::optional<T> replaced;
    {
      std::lock_guard lock(mutex_);
      if (closed_) return false;
      if (waiting_) {
        replaced = std::move(waiting_);
        ++replacedCount_;
      }
      waiting_ = std::move(value);
    }
    ready_.notify_one();
    return true;
  }

  // Blocks until a value arrives; nothing once the mailbox is closed.
  std::optional<T> take() {
    std::unique_lock lock(mutex_);
    ready_.wait(lock, [this] { return waiting_.has_value() || closed_; });
    if (closed_) return std::nullopt;
    return std::exchange(waiting_, std::nullopt);
  }

  // Drops the waiting value and wakes the consumer; later puts are refused.
  void close() {
    std::optional<T> dropped;
    {
      std::lock_guard lock(mutex_);
      closed_ = true;
      dropped = std::move(waiting_);
      waiting_.reset();
    }
    ready_.notify_all();
  }

  std::uint64_t replacedCount() const {
    std::lock_guard lock(mutex_);
    return replacedCount_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable ready_;
  std::optional<T> waiting_;
  bool closed_ = false;
  std::uint64_t replacedCount_ = 0;
};

}  // namespace orin::screen
