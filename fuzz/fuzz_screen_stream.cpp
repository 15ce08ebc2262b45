// The screen-stream framing: the input is tried as a frame header, a video-frame header, a control
// payload and a video-config payload, then split into frames by OrinScreenFrameReader, both whole
// and in pieces, and every frame's payload is decoded by its type. Whatever decodes must survive
// encoding and decoding again.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fuzzer/FuzzedDataProvider.h>
#include <span>
#include <vector>

#include "OrinLinkShared/Assert.h"
#include "OrinLinkShared/ScreenStream.h"

namespace {

using orin::OrinScreenFrameHeader;
using orin::OrinScreenFrameReader;
using orin::OrinScreenMessageType;
using Bytes = std::span<const std::uint8_t>;
namespace framing = orin::OrinScreenFraming;
namespace stream = orin::OrinScreenStream;

// Beyond this many pieces the rest goes in one.
constexpr int maxPieces = 64;

bool startsWith(Bytes bytes, Bytes prefix) {
  return bytes.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), bytes.begin());
}

std::uint32_t announcedLength(Bytes bytes) {
  return static_cast<std::uint32_t>(bytes[1]) << 24 | static_cast<std::uint32_t>(bytes[2]) << 16 |
         static_cast<std::uint32_t>(bytes[3]) << 8 | bytes[4];
}

void checkFrameHeader(Bytes bytes) {
  const auto parsed = framing::parseHeader(bytes);
  if (bytes.size() < stream::headerLength) {
    ORIN_ASSERT(!parsed, "a frame header from fewer than five bytes");
    return;
  }
  const std::uint32_t length = announcedLength(bytes);
  ORIN_ASSERT(parsed.has_value() == (length <= stream::maxPayloadLength),
              "the payload cap is not applied as announced");
  if (!parsed) return;
  ORIN_ASSERT(parsed->payloadLength == length, "payload length misread");
  ORIN_ASSERT(parsed->type == orin::messageTypeFromByte(bytes[0]), "type byte misread");
  if (parsed->type) {
    ORIN_ASSERT(startsWith(bytes, framing::headerBytes(*parsed->type, length)),
                "frame header does not encode back to its bytes");
  }
}

void checkVideoFrameHeader(Bytes bytes) {
  const auto header = OrinScreenFrameHeader::parse(bytes);
  ORIN_ASSERT(header.has_value() == (bytes.size() >= OrinScreenFrameHeader::encodedLength),
              "video-frame header presence is wrong");
  if (!header) return;
  const auto encoded = header->encoded();
  ORIN_ASSERT(OrinScreenFrameHeader::parse(encoded) == header, "video-frame header round trip");
  ORIN_ASSERT(std::equal(encoded.begin(), encoded.begin() + 8, bytes.begin()),
              "presentation time does not encode back to its bytes");
  ORIN_ASSERT(header->isKeyframe == (bytes[8] != 0), "key-frame flag misread");
}

void checkControl(Bytes payload) {
  orin::OrinScreenControlMessage message;
  try {
    message = framing::decodeControl(payload);
  } catch (const orin::DecodingError&) {
    return;
  }
  const orin::ByteString framed = framing::frame(message);
  const auto header = framing::parseHeader(framed);
  ORIN_ASSERT(header && header->type == OrinScreenMessageType::control &&
                  header->payloadLength == framed.size() - stream::headerLength,
              "a framed control message has the wrong header");
  ORIN_ASSERT(framing::decodeControl(Bytes(framed).subspan(stream::headerLength)) == message,
              "control message round trip");
}

void checkVideoConfig(Bytes payload) {
  orin::OrinScreenVideoConfig config;
  try {
    config = framing::decodeVideoConfig(payload);
  } catch (const orin::DecodingError&) {
    return;
  }
  const std::string text = orin::encodeJSON(config);
  ORIN_ASSERT(orin::decodeJSON<orin::OrinScreenVideoConfig>(text) == config,
              "video config round trip");
}

void checkPayload(const OrinScreenFrameReader::Frame& frame) {
  if (!frame.type) return;
  switch (*frame.type) {
    case OrinScreenMessageType::control:
      checkControl(frame.payload);
      break;
    case OrinScreenMessageType::videoConfig:
      checkVideoConfig(frame.payload);
      break;
    case OrinScreenMessageType::videoFrame:
      checkVideoFrameHeader(frame.payload);
      break;
  }
}

struct Drained {
  std::vector<OrinScreenFrameReader::Frame> frames;
  OrinScreenFrameReader::Status status = OrinScreenFrameReader::Status::needMore;
};

void drain(OrinScreenFrameReader& reader, Drained& out) {
  OrinScreenFrameReader::Frame frame;
  while ((out.status = reader.next(frame)) == OrinScreenFrameReader::Status::frame) {
    out.frames.push_back(frame);
  }
}

bool sameFrames(const Drained& a, const Drained& b) {
  return std::equal(a.frames.begin(), a.frames.end(), b.frames.begin(), b.frames.end(),
                    [](const auto& x, const auto& y) {
                      return x.typeByte == y.typeByte && x.type == y.type && x.payload == y.payload;
                    });
}

// The writer's prefix is the frame's first bytes, except that it writes the key-frame flag as 0/1.
void checkVideoFramePrefix(Bytes framed, Bytes payload) {
  const auto header = OrinScreenFrameHeader::parse(payload);
  if (!header) return;
  const auto prefix =
      framing::videoFramePrefix(*header, payload.size() - OrinScreenFrameHeader::encodedLength);
  ORIN_ASSERT(std::equal(prefix.begin(), prefix.end() - 1, framed.begin()) &&
                  prefix.back() == (header->isKeyframe ? 1 : 0),
              "video-frame prefix differs from the framed bytes");
}

// Frames read from the whole input must lie end to end from its first byte, each framed as read;
// what is left over explains the reader's last answer.
void checkWhole(Bytes input, const Drained& whole, const OrinScreenFrameReader& reader) {
  std::size_t offset = 0;
  for (const auto& frame : whole.frames) {
    const orin::ByteString framed =
        framing::frame(static_cast<OrinScreenMessageType>(frame.typeByte), frame.payload);
    ORIN_ASSERT(startsWith(input.subspan(offset), framed), "frames do not tile the input");
    if (frame.type == OrinScreenMessageType::videoFrame)
      checkVideoFramePrefix(framed, frame.payload);
    offset += framed.size();
  }
  const Bytes rest = input.subspan(offset);
  if (whole.status == OrinScreenFrameReader::Status::tooLarge) {
    ORIN_ASSERT(rest.size() >= stream::headerLength && !framing::parseHeader(rest),
                "refused a stream whose next header is acceptable");
  } else {
    ORIN_ASSERT(reader.bufferedBytes() == rest.size(), "buffered byte count is off");
    ORIN_ASSERT(rest.size() < stream::headerLength ||
                    rest.size() < stream::headerLength + announcedLength(rest),
                "stopped although a whole frame had arrived");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Bytes input(data, size);
  checkFrameHeader(input);
  checkVideoFrameHeader(input);
  checkControl(input);
  checkVideoConfig(input);

  OrinScreenFrameReader wholeReader;
  wholeReader.append(input);
  Drained whole;
  drain(wholeReader, whole);
  checkWhole(input, whole, wholeReader);
  for (const auto& frame : whole.frames)
    checkPayload(frame);

  FuzzedDataProvider provider(data, size);
  const std::size_t maxPiece = std::size_t{1} << (provider.ConsumeIntegral<std::uint8_t>() & 7);
  OrinScreenFrameReader pieceReader;
  Drained pieces;
  std::size_t offset = 0;
  for (int count = 0; offset < size; ++count) {
    std::size_t length = size - offset;
    if (count < maxPieces && provider.remaining_bytes() > 0) {
      length = std::min(length, provider.ConsumeIntegralInRange<std::size_t>(1, maxPiece));
    }
    pieceReader.append(input.subspan(offset, length));
    offset += length;
    drain(pieceReader, pieces);
    // A refused stream stays refused; nothing more is read from it.
    if (pieces.status == OrinScreenFrameReader::Status::tooLarge) break;
  }
  ORIN_ASSERT(pieces.status == whole.status && sameFrames(pieces, whole),
              "frames read in pieces differ from frames read whole");
  return 0;
}
