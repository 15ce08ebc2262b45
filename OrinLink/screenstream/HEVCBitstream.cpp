#include "OrinLink/screenstream/HEVCBitstream.h"

#include <algorithm>
#include <array>
#include <limits>

namespace orin::screen::hevc {

namespace {

// Position of the next 00 00 01 at or after `from`, or the stream's size.
std::size_t findStartCode(std::span<const std::uint8_t> stream, std::size_t from) {
  for (std::size_t i = from; i + 2 < stream.size(); ++i) {
    if (stream[i + 2] > 1) {
      i += 2;
    } else if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1) {
      return i;
    }
  }
  return stream.size();
}

void appendLength(ByteString& out, std::size_t length) {
  const auto value = static_cast<std::uint32_t>(length);
  out.push_back(static_cast<std::uint8_t>(value >> 24));
  out.push_back(static_cast<std::uint8_t>(value >> 16));
  out.push_back(static_cast<std::uint8_t>(value >> 8));
  out.push_back(static_cast<std::uint8_t>(value));
}

}  // namespace

std::vector<Nal> splitAnnexB(std::span<const std::uint8_t> stream) {
  std::vector<Nal> nals;
  std::size_t start = findStartCode(stream, 0);
  while (start < stream.size()) {
    const std::size_t begin = start + 3;
    const std::size_t next = findStartCode(stream, begin);
    std::size_t end = next;
    while (end > begin && stream[end - 1] == 0)
      --end;
    if (end > begin) nals.push_back(stream.subspan(begin, end - begin));
    start = next;
  }
  return nals;
}

std::optional<int> nalUnitType(Nal nal) {
  if (nal.size() < 2) return std::nullopt;
  return (nal[0] >> 1) & 0x3f;
}

std::uint64_t toMicroseconds(std::optional<std::int64_t> pts, TimeBase timeBase) {
  if (!pts || *pts <= 0 || timeBase.num <= 0 || timeBase.den <= 0) return 0;
  std::int64_t ticks = 0;
  if (__builtin_mul_overflow(*pts, timeBase.num, &ticks))
    return std::numeric_limits<std::uint64_t>::max();
  const auto whole = static_cast<std::uint64_t>(ticks / timeBase.den);
  const auto rest = static_cast<std::uint64_t>(ticks % timeBase.den);
  std::uint64_t micros = 0;
  if (__builtin_mul_overflow(whole, std::uint64_t{1'000'000}, &micros))
    return std::numeric_limits<std::uint64_t>::max();
  // rest < den, so rest × 10^6 only overflows for time bases finer than 2^-44 s.
  const auto den = static_cast<std::uint64_t>(timeBase.den);
  const std::uint64_t fraction =
      rest <= std::numeric_limits<std::uint64_t>::max() / 1'000'000u
          ? rest * 1'000'000u / den
          : static_cast<std::uint64_t>(static_cast<long double>(rest) * 1e6L /
                                       static_cast<long double>(den));
  return micros + fraction;
}

bool FrameAssembler::absorbParameterSets(const std::vector<Nal>& nals) {
  std::array<std::vector<ByteString>, 3> seen;
  bool any = false;
  for (Nal nal : nals) {
    const auto type = nalUnitType(nal);
    if (!type || !isParameterSet(*type)) continue;
    seen[static_cast<std::size_t>(*type - vpsType)].emplace_back(nal.begin(), nal.end());
    any = true;
  }
  if (!any) return false;

  std::array<std::vector<ByteString>, 3> merged;
  for (ByteString& set : current_) {
    const auto index = static_cast<std::size_t>(*nalUnitType(set) - vpsType);
    merged[index].push_back(std::move(set));
  }
  current_.clear();
  for (std::size_t i = 0; i < merged.size(); ++i) {
    auto& chosen = seen[i].empty() ? merged[i] : seen[i];
    for (ByteString& set : chosen)
      current_.push_back(std::move(set));
  }
  return true;
}

void FrameAssembler::adoptParameterSets(std::span<const std::uint8_t> annexB) {
  absorbParameterSets(splitAnnexB(annexB));
}

std::optional<EncodedVideoFrame> FrameAssembler::assemble(const EncodedPacket& packet) {
  const std::vector<Nal> nals = splitAnnexB(packet.annexB);
  absorbParameterSets(nals);

  bool keyframe = packet.keyFlag;
  std::size_t size = 0;
  for (Nal nal : nals) {
    const auto type = nalUnitType(nal);
    if (type && isParameterSet(*type)) continue;
    if (type && isIrap(*type)) keyframe = true;
    size += nalLengthSize + nal.size();
  }
  if (size == 0) return std::nullopt;

  EncodedVideoFrame frame;
  frame.header.isKeyframe = keyframe;
  frame.header.presentationTimeMicroseconds = toMicroseconds(packet.pts, packet.timeBase);
  frame.data.reserve(size);
  for (Nal nal : nals) {
    const auto type = nalUnitType(nal);
    if (type && isParameterSet(*type)) continue;
    appendLength(frame.data, nal.size());
    frame.data.insert(frame.data.end(), nal.begin(), nal.end());
  }

  if (!current_.empty() && current_ != announced_) {
    announced_ = current_;
    frame.config = OrinScreenVideoConfig{"hevc", width_, height_, nalLengthSize, current_};
  }
  return frame;
}

std::optional<std::vector<Nal>> splitLengthPrefixed(std::span<const std::uint8_t> data) {
  std::vector<Nal> nals;
  std::size_t at = 0;
  while (at < data.size()) {
    if (data.size() - at < nalLengthSize) return std::nullopt;
    const std::size_t length = std::size_t{data[at]} << 24 | std::size_t{data[at + 1]} << 16 |
                               std::size_t{data[at + 2]} << 8 | std::size_t{data[at + 3]};
    at += nalLengthSize;
    if (length > data.size() - at) return std::nullopt;
    nals.push_back(data.subspan(at, length));
    at += length;
  }
  return nals;
}

void appendAnnexB(const EncodedVideoFrame& frame, const std::vector<ByteString>& parameterSets,
                  ByteString& out) {
  static constexpr std::array<std::uint8_t, 4> startCode{0, 0, 0, 1};
  const auto append = [&out](std::span<const std::uint8_t> nal) {
    out.insert(out.end(), startCode.begin(), startCode.end());
    out.insert(out.end(), nal.begin(), nal.end());
  };
  for (const ByteString& set : parameterSets)
    append(set);
  for (Nal nal : splitLengthPrefixed(frame.data).value_or(std::vector<Nal>{}))
    append(nal);
}

}  // namespace orin::screen::hevc
