#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "OrinLink/screenstream/CapturedFrame.h"
#include "OrinLink/screenstream/EncodedVideoFrame.h"
#include "OrinLink/screenstream/FrameMailbox.h"
#include "OrinLink/screenstream/FramePacer.h"
#include "OrinLink/screenstream/HEVCBitstream.h"
#include "OrinLink/screenstream/KeyframePolicy.h"
#include "OrinLink/screenstream/LibavHEVCEncoder.h"
#include "OrinLinkShared/Error.h"

namespace orin::screen {

class VideoEncoderError : public Error {
 public:
  enum class Kind { sessionCreationFailed, encodeFailed };

  // `status` is the libavcodec error code (a negative AVERROR).
  static VideoEncoderError sessionCreationFailed(std::int32_t status);
  static VideoEncoderError encodeFailed(std::int32_t status);

  Kind kind() const { return kind_; }
  std::int32_t status() const { return status_; }

 private:
  VideoEncoderError(Kind kind, std::int32_t status);
  Kind kind_;
  std::int32_t status_;
};

// Captured screen images in, HEVC frames out, for one capture run. Converting and encoding happen
// on a thread of its own that takes the newest submitted image whenever it is free, so a slow
// encoder lowers the frame rate instead of adding delay; its pacer lets capture grab an image
// only when the encoder is free to take it. Frames arrive through `output` on that thread.
class VideoEncoder {
 public:
  using Output = std::function<void(EncodedVideoFrame)>;

  struct Statistics {
    std::uint64_t submitted = 0;
    // Replaced by a newer image before the encoder got to them.
    std::uint64_t replaced = 0;
    std::uint64_t delivered = 0;
    std::uint64_t failed = 0;
    // The code of the latest failure, 0 when none: describe with VideoEncoderError::encodeFailed.
    std::int32_t lastFailureStatus = 0;
    // Time spent encoding, and waiting for a picture in between.
    std::uint64_t busyMicroseconds = 0;
    std::uint64_t idleMicroseconds = 0;
    // Of the time spent encoding, that spent converting images.
    std::uint64_t convertMicroseconds = 0;
  };

  // Throws VideoEncoderError (sessionCreationFailed) when no HEVC encoder can be opened.
  VideoEncoder(int width, int height, int framesPerSecond, std::int64_t averageBitrate,
               Output output);
  ~VideoEncoder();
  VideoEncoder(const VideoEncoder&) = delete;
  VideoEncoder& operator=(const VideoEncoder&) = delete;

  // Returns at once; the image is scaled to the encoder's size. Any thread.
  void encode(const CapturedFrame& frame);
  // The next image encoded becomes an IDR picture carrying the parameter sets. Any thread.
  void forceKeyframe() { keyframes_.request(); }

  int width() const { return width_; }
  int height() const { return height_; }
  // The libavcodec encoder in use ("hevc_nvenc", "hevc_vaapi" or "libx265").
  const std::string& backendName() const;
  Statistics statistics() const;
  // For the capture that feeds this encoder.
  const std::shared_ptr<FramePacer>& pacer() const { return pacer_; }

 private:
  void run();
  void deliver(const hevc::EncodedPacket& packet);

  int width_;
  int height_;
  Output output_;
  std::unique_ptr<LibavHEVCEncoder> backend_;
  hevc::FrameAssembler assembler_;
  KeyframePolicy keyframes_;
  std::shared_ptr<FramePacer> pacer_ = std::make_shared<FramePacer>();
  FrameMailbox<CapturedFrame> mailbox_;
  std::atomic<bool> stopping_{false};
  std::atomic<std::uint64_t> submitted_{0};
  std::atomic<std::uint64_t> delivered_{0};
  std::atomic<std::uint64_t> failed_{0};
  std::atomic<std::int32_t> lastFailureStatus_{0};
  std::atomic<std::uint64_t> busyMicroseconds_{0};
  std::atomic<std::uint64_t> idleMicroseconds_{0};
  std::atomic<std::uint64_t> convertMicroseconds_{0};
  std::thread thread_;
};

}  // namespace orin::screen
