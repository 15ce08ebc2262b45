#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "OrinLinkShared/Enum.h"
#include "OrinLinkShared/JSONCoding.h"

// The screen-stream wire protocol: every message in either direction is one frame of
// [type byte][payload length, 4 bytes big-endian][payload].
namespace orin {

namespace OrinScreenStream {
inline constexpr std::int64_t protocolVersion = 3;
inline constexpr std::uint16_t defaultPort = 38142;
inline constexpr std::string_view bonjourServiceType = "_orinlink-screen._tcp";
inline constexpr std::uint32_t maxPayloadLength = 33'554'432;
inline constexpr std::size_t headerLength = 5;
}  // namespace OrinScreenStream

enum class OrinScreenShape : std::int64_t { mirror = 0, ultrawide = 1, superUltrawide = 2 };

inline constexpr std::array<OrinScreenShape, 3> allScreenShapes{
    OrinScreenShape::mirror, OrinScreenShape::ultrawide, OrinScreenShape::superUltrawide};

std::optional<OrinScreenShape> screenShapeFromRawValue(std::int64_t raw);
constexpr std::int64_t rawValue(OrinScreenShape shape) {
  return static_cast<std::int64_t>(shape);
}
std::string_view label(OrinScreenShape shape);
std::string_view detail(OrinScreenShape shape);

enum class OrinScreenMessageType : std::uint8_t { control = 1, videoConfig = 2, videoFrame = 3 };

std::optional<OrinScreenMessageType> messageTypeFromByte(std::uint8_t byte);

struct OrinScreenControlMessage {
  enum class Kind {
    hello,
    pair,
    pairingRequired,
    paired,
    accepted,
    error,
    ping,
    pong,
    setShape,
    shape,
    setPortal,
    portal
  };

  Kind kind = Kind::ping;
  std::optional<std::int64_t> version;
  std::optional<std::string> deviceId;
  std::optional<std::string> deviceName;
  std::optional<std::string> token;
  std::optional<std::string> pairingCode;
  std::optional<std::string> message;
  std::optional<std::string> name;
  std::optional<std::int64_t> shape;
  std::optional<bool> portal;
  std::optional<std::string> edition;
  std::optional<bool> supportsVirtualDisplays;

  static OrinScreenControlMessage decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const OrinScreenControlMessage&) const = default;
};

template <>
struct EnumTraits<OrinScreenControlMessage::Kind> {
  static constexpr std::array<std::string_view, 12> rawValues{
      "hello", "pair", "pairingRequired", "paired", "accepted",  "error",
      "ping",  "pong", "setShape",        "shape",  "setPortal", "portal"};
};

struct OrinScreenVideoConfig {
  std::string codec;
  std::int64_t width = 0;
  std::int64_t height = 0;
  std::int64_t nalLengthSize = 0;
  std::vector<ByteString> parameterSets;

  static OrinScreenVideoConfig decode(const json::Value& value, const json::CodingPath& path);
  json::Ordered encode() const;
  bool operator==(const OrinScreenVideoConfig&) const = default;
};

struct OrinScreenFrameHeader {
  static constexpr std::size_t encodedLength = 9;

  std::uint64_t presentationTimeMicroseconds = 0;
  bool isKeyframe = false;

  std::array<std::uint8_t, encodedLength> encoded() const;
  // Nothing for fewer than nine bytes; any non-zero flag byte is a key frame.
  static std::optional<OrinScreenFrameHeader> parse(std::span<const std::uint8_t> bytes);

  bool operator==(const OrinScreenFrameHeader&) const = default;
};

namespace OrinScreenFraming {

struct ParsedHeader {
  // Absent for a type byte this side does not know; the length still lets a reader skip it.
  std::optional<OrinScreenMessageType> type;
  std::uint32_t payloadLength = 0;

  bool operator==(const ParsedHeader&) const = default;
};

ByteString frame(OrinScreenMessageType type, std::span<const std::uint8_t> payload);
// Throws EncodingError when a text field is not valid UTF-8.
ByteString frame(const OrinScreenControlMessage& control);
std::optional<ParsedHeader> parseHeader(std::span<const std::uint8_t> bytes);

// The five header bytes alone, for writers that send the payload from its own buffer.
std::array<std::uint8_t, OrinScreenStream::headerLength> headerBytes(OrinScreenMessageType type,
                                                                     std::size_t payloadLength);
// Frame header plus video-frame header: everything in front of a frame's coded data.
std::array<std::uint8_t, OrinScreenStream::headerLength + OrinScreenFrameHeader::encodedLength>
videoFramePrefix(const OrinScreenFrameHeader& header, std::size_t dataLength);

// Payload decoding; each throws DecodingError.
OrinScreenControlMessage decodeControl(std::span<const std::uint8_t> payload);
OrinScreenVideoConfig decodeVideoConfig(std::span<const std::uint8_t> payload);

}  // namespace OrinScreenFraming

// Splits a byte stream into frames as bytes arrive, in whatever pieces they come.
class OrinScreenFrameReader {
 public:
  struct Frame {
    std::uint8_t typeByte = 0;
    std::optional<OrinScreenMessageType> type;
    ByteString payload;
  };
  enum class Status { needMore, frame, tooLarge };

  void append(std::span<const std::uint8_t> bytes);
  // `frame` fills `out`; `tooLarge` is final (the stream cannot be resynchronised).
  Status next(Frame& out);
  std::size_t bufferedBytes() const { return buffer_.size() - consumed_; }

 private:
  ByteString buffer_;
  std::size_t consumed_ = 0;
  bool broken_ = false;
};

}  // namespace orin
