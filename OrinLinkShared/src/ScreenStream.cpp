#include "OrinLinkShared/ScreenStream.h"

#include <limits>

#include "OrinLinkShared/Assert.h"

namespace orin {
namespace {

std::string_view asText(std::span<const std::uint8_t> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

void putBigEndian(std::uint8_t* out, std::uint64_t value, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i) {
    out[i] = static_cast<std::uint8_t>(value >> (8 * (width - 1 - i)));
  }
}

std::uint64_t readBigEndian(const std::uint8_t* in, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i)
    value = value << 8 | in[i];
  return value;
}

}  // namespace

std::optional<OrinScreenShape> screenShapeFromRawValue(std::int64_t raw) {
  if (raw < 0 || raw > 2) return std::nullopt;
  return static_cast<OrinScreenShape>(raw);
}

std::string_view label(OrinScreenShape shape) {
  switch (shape) {
    case OrinScreenShape::mirror:
      return "Mac's Own Screen";
    case OrinScreenShape::ultrawide:
      return "Ultrawide 21:9";
    case OrinScreenShape::superUltrawide:
      return "Super Ultrawide 32:9";
  }
  fatalError("unknown screen shape");
}

std::string_view detail(OrinScreenShape shape) {
  switch (shape) {
    case OrinScreenShape::mirror:
      return "Mirrors a display the Mac already has.";
    case OrinScreenShape::ultrawide:
      return "3440 \u00D7 1440 of desktop.";
    case OrinScreenShape::superUltrawide:
      return "5120 \u00D7 1440 of desktop.";
  }
  fatalError("unknown screen shape");
}

std::optional<OrinScreenMessageType> messageTypeFromByte(std::uint8_t byte) {
  if (byte < 1 || byte > 3) return std::nullopt;
  return static_cast<OrinScreenMessageType>(byte);
}

OrinScreenControlMessage OrinScreenControlMessage::decode(const json::Value& value,
                                                          const json::CodingPath& path) {
  const json::ObjectReader r(value, path);
  return {r.required<Kind>("kind"),
          r.optional<std::int64_t>("version"),
          r.optional<std::string>("deviceId"),
          r.optional<std::string>("deviceName"),
          r.optional<std::string>("token"),
          r.optional<std::string>("pairingCode"),
          r.optional<std::string>("message"),
          r.optional<std::string>("name"),
          r.optional<std::int64_t>("shape"),
          r.optional<bool>("portal"),
          r.optional<std::string>("edition"),
          r.optional<bool>("supportsVirtualDisplays")};
}

json::Ordered OrinScreenControlMessage::encode() const {
  return json::ObjectWriter()
      .set("kind", kind)
      .set("version", version)
      .set("deviceId", deviceId)
      .set("deviceName", deviceName)
      .set("token", token)
      .set("pairingCode", pairingCode)
      .set("message", message)
      .set("name", name)
      .set("shape", shape)
      .set("portal", portal)
      .set("edition", edition)
      .set("supportsVirtualDisplays", supportsVirtualDisplays)
      .take();
}

OrinScreenVideoConfig OrinScreenVideoConfig::decode(const json::Value& value,
                                                    const json::CodingPath& path) {
  const json::ObjectReader r(value, path);
  return {r.required<std::string>("codec"), r.required<std::int64_t>("width"),
          r.required<std::int64_t>("height"), r.required<std::int64_t>("nalLengthSize"),
          r.required<std::vector<ByteString>>("parameterSets")};
}

json::Ordered OrinScreenVideoConfig::encode() const {
  return json::ObjectWriter()
      .set("codec", codec)
      .set("width", width)
      .set("height", height)
      .set("nalLengthSize", nalLengthSize)
      .set("parameterSets", parameterSets)
      .take();
}

std::array<std::uint8_t, OrinScreenFrameHeader::encodedLength> OrinScreenFrameHeader::encoded()
    const {
  std::array<std::uint8_t, encodedLength> bytes{};
  putBigEndian(bytes.data(), presentationTimeMicroseconds, 8);
  bytes[8] = isKeyframe ? 1 : 0;
  return bytes;
}

std::optional<OrinScreenFrameHeader> OrinScreenFrameHeader::parse(
    std::span<const std::uint8_t> bytes) {
  if (bytes.size() < encodedLength) return std::nullopt;
  return OrinScreenFrameHeader{readBigEndian(bytes.data(), 8), bytes[8] != 0};
}

namespace OrinScreenFraming {

std::array<std::uint8_t, OrinScreenStream::headerLength> headerBytes(OrinScreenMessageType type,
                                                                     std::size_t payloadLength) {
  ORIN_ASSERT(payloadLength <= std::numeric_limits<std::uint32_t>::max(),
              "a frame payload cannot exceed 4,294,967,295 bytes");
  std::array<std::uint8_t, OrinScreenStream::headerLength> bytes{};
  bytes[0] = static_cast<std::uint8_t>(type);
  putBigEndian(bytes.data() + 1, payloadLength, 4);
  return bytes;
}

std::array<std::uint8_t, OrinScreenStream::headerLength + OrinScreenFrameHeader::encodedLength>
videoFramePrefix(const OrinScreenFrameHeader& header, std::size_t dataLength) {
  std::array<std::uint8_t, OrinScreenStream::headerLength + OrinScreenFrameHeader::encodedLength>
      bytes{};
  const auto frameHeader = headerBytes(OrinScreenMessageType::videoFrame,
                                       dataLength + OrinScreenFrameHeader::encodedLength);
  const auto videoHeader = header.encoded();
  std::copy(frameHeader.begin(), frameHeader.end(), bytes.begin());
  std::copy(videoHeader.begin(), videoHeader.end(), bytes.begin() + OrinScreenStream::headerLength);
  return bytes;
}

ByteString frame(OrinScreenMessageType type, std::span<const std::uint8_t> payload) {
  const auto header = headerBytes(type, payload.size());
  ByteString bytes;
  bytes.reserve(payload.size() + header.size());
  bytes.insert(bytes.end(), header.begin(), header.end());
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

ByteString frame(const OrinScreenControlMessage& control) {
  const std::string text = encodeJSON(control);
  return frame(OrinScreenMessageType::control,
               {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

std::optional<ParsedHeader> parseHeader(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < OrinScreenStream::headerLength) return std::nullopt;
  const auto length = static_cast<std::uint32_t>(readBigEndian(bytes.data() + 1, 4));
  if (length > OrinScreenStream::maxPayloadLength) return std::nullopt;
  return ParsedHeader{messageTypeFromByte(bytes[0]), length};
}

OrinScreenControlMessage decodeControl(std::span<const std::uint8_t> payload) {
  return decodeJSON<OrinScreenControlMessage>(asText(payload));
}

OrinScreenVideoConfig decodeVideoConfig(std::span<const std::uint8_t> payload) {
  return decodeJSON<OrinScreenVideoConfig>(asText(payload));
}

}  // namespace OrinScreenFraming

void OrinScreenFrameReader::append(std::span<const std::uint8_t> bytes) {
  // Reclaim consumed space before growing, so a long session keeps one bounded buffer.
  if (consumed_ > 0 && consumed_ >= buffer_.size() / 2) {
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(consumed_));
    consumed_ = 0;
  }
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
}

OrinScreenFrameReader::Status OrinScreenFrameReader::next(Frame& out) {
  if (broken_) return Status::tooLarge;
  const std::span<const std::uint8_t> available(buffer_.data() + consumed_,
                                                buffer_.size() - consumed_);
  if (available.size() < OrinScreenStream::headerLength) return Status::needMore;
  const auto header = OrinScreenFraming::parseHeader(available);
  if (!header) {
    broken_ = true;
    return Status::tooLarge;
  }
  const std::size_t total = OrinScreenStream::headerLength + header->payloadLength;
  if (available.size() < total) return Status::needMore;
  out.typeByte = available[0];
  out.type = header->type;
  out.payload.assign(available.begin() + OrinScreenStream::headerLength,
                     available.begin() + static_cast<std::ptrdiff_t>(total));
  consumed_ += total;
  if (consumed_ == buffer_.size()) {
    buffer_.clear();
    consumed_ = 0;
  }
  return Status::frame;
}

}  // namespace orin
