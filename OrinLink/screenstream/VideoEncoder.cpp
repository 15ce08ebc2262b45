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
  // Told before the frame is there, so that taking it always clears the mark.
  pacer_->offered();
  mailbox_.put(frame);
}

const std::string& VideoEncoder::backendName() const {
  return backend_->name();
}

VideoEncoder::Statistics VideoEncoder::statistics() const {
  return {submitted_.load(std::memory_order_relaxed),
          mailbox_.replacedCount(),
          delivered_.load(std::memory_order_relaxed),
          failed_.load(std::memory_order_relaxed),
          lastFailureStatus_.load(std::memory_order_relaxed),
          busyMicroseconds_.load(std::memory_order_relaxed),
          idleMicroseconds_.load(std::memory_order_relaxed),
          convertMicroseconds_.load(std::memory_order_relaxed)};
}

void VideoEncoder::run() {
  const LibavHEVCEncoder::PacketSink sink = [this](const hevc::EncodedPacket& packet) {
    deliver(packet);
  };
  using Clock = std::chrono::steady_clock;
  std::optional<Clock::time_point> idleSince;
  const auto microseconds = [](Clock::duration d) {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(d).count());
  };
  while (std::optional<CapturedFrame> frame = mailbox_.take()) {
    if (stopping_.load()) break;
    const auto began = Clock::now();
    if (idleSince) idleMicroseconds_.fetch_add(microseconds(began - *idleSince));
    pacer_->started();
    const bool force = keyframes_.forceFrame(frame->presentationTimeMicroseconds);
    Picture prepared;
    int status = backend_->prepare(*frame, prepared);
    // The capture's buffer goes back as soon as its pixels are converted.
    frame.reset();
    const auto converted = Clock::now();
    convertMicroseconds_.fetch_add(microseconds(converted - began));
    if (status >= 0) status = backend_->encode(prepared, force, sink);
    prepared.frame.reset();
    const auto ended = Clock::now();
    pacer_->finished();
    busyMicroseconds_.fetch_add(microseconds(ended - began));
    idleSince = ended;
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
