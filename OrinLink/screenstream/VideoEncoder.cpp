#include "OrinLink/screenstream/VideoEncoder.h"

#include <pthread.h>

#include "OrinLink/screenstream/LibavHEVCEncoder.h"

namespace orin::screen {

namespace {

constexpr std::uint64_t maxKeyframeInterval = 2'000'000;

std::string describe(VideoEncoderError::Kind kind, std::int32_t status) {
  switch (kind) {
    case VideoEncoderError::Kind::sessionCreationFailed:
      return "Could not create the HEVC encoder (libavcodec error " + std::to_string(status) + ").";
    case VideoEncoderError::Kind::encodeFailed:
      return "Encoding a frame failed (libavcodec error " + std::to_string(status) + ").";
  }
  return {};
}

}  // namespace

VideoEncoderError::VideoEncoderError(Kind kind, std::int32_t status)
    : Error(describe(kind, status)), kind_(kind), status_(status) {}

VideoEncoderError VideoEncoderError::sessionCreationFailed(std::int32_t status) {
  return {Kind::sessionCreationFailed, status};
}

VideoEncoderError VideoEncoderError::encodeFailed(std::int32_t status) {
  return {Kind::encodeFailed, status};
}

VideoEncoder::VideoEncoder(int width, int height, int framesPerSecond, std::int64_t averageBitrate,
                           Output output)
    : width_(width),
      height_(height),
      output_(std::move(output)),
      backend_(std::make_unique<LibavHEVCEncoder>(
          EncoderSettings{width, height, framesPerSecond, averageBitrate})),
      assembler_(width, height),
      keyframes_(maxKeyframeInterval, framesPerSecond) {
  assembler_.adoptParameterSets(backend_->globalHeader());
  thread_ = std::thread([this] {
    pthread_setname_np(pthread_self(), "orinlink.encode");
    run();
  });
}

VideoEncoder::~VideoEncoder() {
  stopping_.store(true);
  mailbox_.close();
  if (thread_.joinable()) thread_.join();
}

void VideoEncoder::encode(const CapturedFrame& frame) {
  submitted_.fetch_add(1, std::memory_order_relaxed);
  mailbox_.put(frame);
}

const std::string& VideoEncoder::backendName() const {
  return backend_->name();
}

VideoEncoder::Statistics VideoEncoder::statistics() const {
  return {submitted_.load(std::memory_order_relaxed), mailbox_.replacedCount(),
          delivered_.load(std::memory_order_relaxed), failed_.load(std::memory_order_relaxed),
          lastFailureStatus_.load(std::memory_order_relaxed)};
}

void VideoEncoder::run() {
  const LibavHEVCEncoder::PacketSink sink = [this](const hevc::EncodedPacket& packet) {
    deliver(packet);
  };
  while (std::optional<CapturedFrame> frame = mailbox_.take()) {
    if (stopping_.load()) break;
    const bool force = keyframes_.forceFrame(frame->presentationTimeMicroseconds);
    const int status = backend_->encode(std::move(*frame), force, sink);
    frame.reset();
    if (status < 0) {
      // A requested keyframe that failed is still owed.
      if (force) keyframes_.request();
      failed_.fetch_add(1, std::memory_order_relaxed);
      lastFailureStatus_.store(status, std::memory_order_relaxed);
    }
  }
}

void VideoEncoder::deliver(const hevc::EncodedPacket& packet) {
  std::optional<EncodedVideoFrame> frame = assembler_.assemble(packet);
  if (!frame) return;
  if (frame->header.isKeyframe)
    keyframes_.keyframeEmitted(frame->header.presentationTimeMicroseconds);
  if (stopping_.load()) return;
  delivered_.fetch_add(1, std::memory_order_relaxed);
  output_(std::move(*frame));
}

}  // namespace orin::screen
