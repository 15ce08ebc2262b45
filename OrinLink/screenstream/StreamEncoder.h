#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "OrinLink/screenstream/CapturedFrame.h"
#include "OrinLink/screenstream/EncodedVideoFrame.h"
#include "OrinLink/screenstream/FramePacer.h"

namespace orin::screen {

// What the service asks of an HEVC encoder; one per capture run. Destroying it stops the
// encoding thread, after which no output is delivered.
class StreamEncoder {
 public:
  virtual ~StreamEncoder() = default;
  // The capture thread; must not block.
  virtual void encode(const CapturedFrame& frame) = 0;
  // Any thread.
  virtual void forceKeyframe() = 0;
  // For capture to grab only when the encoder is free; none means at the frame rate.
  virtual std::shared_ptr<FramePacer> pacer() const { return nullptr; }
};

struct StreamEncoderSettings {
  int width = 0;
  int height = 0;
  int framesPerSecond = 0;
  std::int64_t averageBitrate = 0;
  bool operator==(const StreamEncoderSettings&) const = default;
};

// Frames come out on the encoder's own thread. Throws an Error (VideoEncoderError) when no
// encoder can be opened.
using EncoderFactory = std::function<std::unique_ptr<StreamEncoder>(
    const StreamEncoderSettings& settings, std::function<void(EncodedVideoFrame)> output)>;

// The libavcodec encoder, which lives in a module of its own: libavcodec brings some eighty
// libraries, which would otherwise load at every start and stay in memory although most starts
// never stream. The module is loaded the first time an encoder is made; a module that cannot be
// loaded makes the factory throw an Error saying why.
EncoderFactory loadableEncoderFactory();

// What the module exports, under this name; the caller owns the encoder it returns.
inline constexpr const char* encoderModuleEntryPoint = "orinCreateStreamEncoder";
using EncoderModuleEntry = StreamEncoder* (*)(const StreamEncoderSettings& settings,
                                              std::function<void(EncodedVideoFrame)> output);

}  // namespace orin::screen
