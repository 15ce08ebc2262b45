// The encoder module: libavcodec's HEVC encoder behind StreamEncoder, loaded by the app when a
// stream first needs it.

#include <type_traits>

#include "OrinLink/screenstream/StreamEncoder.h"
#include "OrinLink/screenstream/VideoEncoder.h"

namespace orin::screen {
namespace {

class LibavStreamEncoder final : public StreamEncoder {
 public:
  LibavStreamEncoder(const StreamEncoderSettings& settings, VideoEncoder::Output output)
      : encoder_(settings.width, settings.height, settings.framesPerSecond, settings.averageBitrate,
                 std::move(output)) {}
  void encode(const CapturedFrame& frame) override { encoder_.encode(frame); }
  void forceKeyframe() override { encoder_.forceKeyframe(); }
  std::shared_ptr<FramePacer> pacer() const override { return encoder_.pacer(); }

 private:
  VideoEncoder encoder_;
};

}  // namespace
}  // namespace orin::screen

// Errors leave as exceptions: the module and the app share one C++ runtime.
extern "C" orin::screen::StreamEncoder* orinCreateStreamEncoder(
    const orin::screen::StreamEncoderSettings& settings,
    std::function<void(orin::screen::EncodedVideoFrame)> output) {
  return new orin::screen::LibavStreamEncoder(settings, std::move(output));
}

static_assert(std::is_same_v<decltype(&orinCreateStreamEncoder), orin::screen::EncoderModuleEntry>);
