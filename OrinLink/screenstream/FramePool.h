#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace orin::screen {

// A fixed set of pixel buffers lent out one frame at a time. A buffer comes back only when the
// last owner of its frame lets go, so a grab never overwrites pixels the encoder is still
// reading; when every buffer is out, the caller skips the grab instead of queueing. The buffers'
// storage lives until the pool and every frame lent from it are gone.
class FramePool : public std::enable_shared_from_this<FramePool> {
 public:
  struct Lease {
    std::size_t index = 0;
    std::uint8_t* data = nullptr;
    // Returns the buffer to the pool when the last copy goes.
    std::shared_ptr<const void> owner;
  };

  static std::shared_ptr<FramePool> create(std::vector<std::uint8_t*> buffers,
                                           std::shared_ptr<const void> storage);

  std::optional<Lease> acquire();
  std::size_t available() const;
  std::size_t size() const { return buffers_.size(); }

 private:
  FramePool(std::vector<std::uint8_t*> buffers, std::shared_ptr<const void> storage);
  void release(std::size_t index);

  std::vector<std::uint8_t*> buffers_;
  std::shared_ptr<const void> storage_;
  mutable std::mutex mutex_;
  std::vector<std::size_t> free_;
};

}  // namespace orin::screen
