#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "OrinLink/screenstream/CapturedFrame.h"
#include "OrinLink/screenstream/HEVCBitstream.h"

struct AVFrame;
struct SwsContext;

namespace orin::screen {

struct EncoderSettings {
  int width = 0;
  int height = 0;
  int framesPerSecond = 0;
  std::int64_t averageBitrate = 0;
};

// BGRA at whatever size capture delivers to planar YUV 4:2:0 (BT.709, limited range) at the
// encoder's size: colour conversion and scaling in one libswscale pass, or the faster conversion
// of PixelConversion.h where the sizes are the same.
class YUVConverter {
 public:
  enum class Layout { planar, nv12 };

  YUVConverter(int width, int height, Layout layout = Layout::planar, int threads = 1);
  ~YUVConverter();
  YUVConverter(const YUVConverter&) = delete;
  YUVConverter& operator=(const YUVConverter&) = delete;

  // 0 or an AVERROR. The target keeps its buffer unless someone still holds a share of it.
  int convert(const CapturedFrame& source);
  AVFrame* target() { return target_; }
  // A reference to the latest picture: its buffer is not written again while the share lives.
  std::shared_ptr<AVFrame> share() const;

 private:
  int prepareScaler(int sourceWidth, int sourceHeight);
  void convertSameSize(const CapturedFrame& source);

  // Converts the lower half of a same-size picture while the caller does the upper one.
  class HalfWorker;

  int width_;
  int height_;
  Layout layout_;
  int threads_;
  int sourceWidth_ = 0;
  int sourceHeight_ = 0;
  SwsContext* scaler_ = nullptr;
  AVFrame* source_ = nullptr;
  AVFrame* target_ = nullptr;
  std::unique_ptr<HalfWorker> worker_;
};

// A converted picture and its capture time, ready for the encoder.
struct Picture {
  std::shared_ptr<AVFrame> frame;
  std::uint64_t presentationTimeMicroseconds = 0;
};

// One libavcodec HEVC encoder set up for low delay: no reordering, no lookahead, a keyframe at
// least every two seconds of frames, IDR pictures on demand.
class LibavHEVCEncoder {
 public:
  using PacketSink = std::function<void(const hevc::EncodedPacket&)>;

  static std::vector<std::string_view> defaultCandidates();

  // Opens the first candidate that works (a hardware encoder needs its device); throws
  // VideoEncoderError::sessionCreationFailed with the last candidate's error otherwise.
  explicit LibavHEVCEncoder(const EncoderSettings& settings,
                            std::span<const std::string_view> candidates = defaultCandidates());
  ~LibavHEVCEncoder();
  LibavHEVCEncoder(const LibavHEVCEncoder&) = delete;
  LibavHEVCEncoder& operator=(const LibavHEVCEncoder&) = delete;

  const std::string& name() const { return name_; }
  // Parameter sets the encoder published at opening, if it did (Annex B).
  std::span<const std::uint8_t> globalHeader() const;

  // Converts the image into `picture`; the image's owner may let go once this returns. Returns 0
  // or an AVERROR.
  int prepare(const CapturedFrame& frame, Picture& picture);
  // Encodes a prepared picture and hands every packet produced to `sink`. Returns 0 or the
  // AVERROR of the step that failed.
  int encode(const Picture& picture, bool forceKeyframe, const PacketSink& sink);

 private:
  struct State;
  // 0 with `state` ready, or the AVERROR that stopped this candidate. `renderNode` for VAAPI.
  static int openCandidate(std::string_view name, const EncoderSettings& settings,
                           const std::string& renderNode, State& state);

  std::unique_ptr<State> state_;
  std::string name_;
};

}  // namespace orin::screen
