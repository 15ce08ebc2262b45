#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "OrinLink/screenstream/EncodedVideoFrame.h"

// What an HEVC encoder hands back (Annex B byte streams) turned into what the stream carries:
// length-prefixed NAL units with the parameter sets reported on their own. No codec library here.
namespace orin::screen::hevc {

using Nal = std::span<const std::uint8_t>;

inline constexpr int vpsType = 32;
inline constexpr int spsType = 33;
inline constexpr int ppsType = 34;
inline constexpr std::int64_t nalLengthSize = 4;

// The NAL units between start codes (3 or 4 bytes), without the start codes and without the
// trailing zero bytes that belong to the next start code. Bytes before the first start code are
// not a NAL unit and are skipped.
std::vector<Nal> splitAnnexB(std::span<const std::uint8_t> stream);

// nal_unit_type from the two-byte header; nothing for a unit too short to have one.
std::optional<int> nalUnitType(Nal nal);
constexpr bool isParameterSet(int type) {
  return type >= vpsType && type <= ppsType;
}
// Random-access points (BLA, IDR, CRA and the reserved IRAP types): a decoder can start here.
constexpr bool isIrap(int type) {
  return type >= 16 && type <= 23;
}

struct TimeBase {
  std::int64_t num = 1;
  std::int64_t den = 1'000'000;
};

// A packet time in its time base as whole microseconds; missing or negative times give 0.
std::uint64_t toMicroseconds(std::optional<std::int64_t> pts, TimeBase timeBase);

struct EncodedPacket {
  std::span<const std::uint8_t> annexB;
  bool keyFlag = false;
  std::optional<std::int64_t> pts;
  TimeBase timeBase;
};

// Turns an encoder's packets into frames. Parameter sets seen in a packet replace those of the
// same type; the frame carries a config whenever the current sets differ from those announced
// last. Used by one thread at a time.
class FrameAssembler {
 public:
  FrameAssembler(int width, int height) : width_(width), height_(height) {}

  // Sets delivered outside the packets (an encoder's global header).
  void adoptParameterSets(std::span<const std::uint8_t> annexB);

  // Nothing when the packet holds no picture data.
  std::optional<EncodedVideoFrame> assemble(const EncodedPacket& packet);

  // VPS, SPS, PPS order.
  const std::vector<ByteString>& parameterSets() const { return current_; }

 private:
  // True when the stream held any parameter set.
  bool absorbParameterSets(const std::vector<Nal>& nals);

  int width_;
  int height_;
  std::vector<ByteString> current_;
  std::vector<ByteString> announced_;
};

// The NAL units of length-prefixed frame data; nothing when a length overruns the data.
std::optional<std::vector<Nal>> splitLengthPrefixed(std::span<const std::uint8_t> data);

// Appends the frame's NAL units to `out` as an Annex B stream (4-byte start codes), with the
// given parameter sets first: what a decoder joining at this frame needs.
void appendAnnexB(const EncodedVideoFrame& frame, const std::vector<ByteString>& parameterSets,
                  ByteString& out);

}  // namespace orin::screen::hevc
