#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

namespace orin::testing_support {

class PipeWireDaemon;
struct ProducerStream;

// A screen-cast-like video source on a test's PipeWire: a Video/Source node that drives its own
// graph, BGRx in memfd buffers it allocates (as compositors do), sending numbered pictures at
// its frame rate until paused. Picture n has pixel(x, y, n) at (x, y).
class PipeWireProducer {
 public:
  struct Options {
    std::uint32_t width = 320;
    std::uint32_t height = 240;
    // Offer any size from 1 × 1 to 8192 × 8192 (width × height preferred), as a virtual
    // monitor does, so the consumer chooses.
    bool anySize = false;
    int framesPerSecond = 30;
    // False: PipeWire allocates the buffers instead, which consumers then see as MemPtr.
    bool memfd = true;
  };

  // Connects and waits until the node exists. Null when that takes longer than `timeout`.
  static std::unique_ptr<PipeWireProducer> start(
      const PipeWireDaemon& daemon, Options options,
      std::chrono::milliseconds timeout = std::chrono::seconds(10));
  ~PipeWireProducer();
  PipeWireProducer(const PipeWireProducer&) = delete;
  PipeWireProducer& operator=(const PipeWireProducer&) = delete;

  std::uint32_t nodeId() const;
  // The size a consumer settled on; nothing before that.
  std::optional<std::pair<std::uint32_t, std::uint32_t>> size() const;
  // Pictures sent so far.
  std::uint64_t framesSent() const;
  // A paused producer sends nothing, as a still desktop with nothing damaged.
  void setPaused(bool paused);
  // Takes the stream down: the node goes away, as when the user stops sharing.
  void disconnect();

  // B, G, R, X of pixel (x, y) in picture `frame`: x and y in the low bytes of blue and green,
  // the picture's number in red; X is 255.
  static std::array<std::uint8_t, 4> pixel(std::uint32_t x, std::uint32_t y, std::uint64_t frame);

 private:
  explicit PipeWireProducer(std::unique_ptr<ProducerStream> state);
  std::unique_ptr<ProducerStream> state_;
};

}  // namespace orin::testing_support
