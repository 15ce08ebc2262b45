#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLinkShared/ScreenStream.h"

#include "EverySplit.h"

namespace orin {
namespace {

using Kind = OrinScreenControlMessage::Kind;
using OrinScreenFraming::ParsedHeader;

ByteString toBytes(std::string_view text) {
  ByteString bytes;
  for (const char c : text)
    bytes.push_back(static_cast<std::uint8_t>(c));
  return bytes;
}

ByteString concat(ByteString bytes, std::span<const std::uint8_t> more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
  return bytes;
}

TEST(ScreenFraming, KeyFrameGolden) {
  ByteString data(1000);
  for (std::size_t i = 0; i < data.size(); ++i)
    data[i] = static_cast<std::uint8_t>(i * 7);
  const ByteString expected = concat({0x03, 0x00, 0x00, 0x03, 0xF1,                    //
                                      0x00, 0x00, 0x00, 0x00, 0x00, 0x16, 0xE3, 0x60,  //
                                      0x01},
                                     data);
  const OrinScreenFrameHeader header{1'500'000, true};
  const auto headerBytes = header.encoded();
  const ByteString payload = concat({headerBytes.begin(), headerBytes.end()}, data);
  EXPECT_EQ(OrinScreenFraming::frame(OrinScreenMessageType::videoFrame, payload), expected);
  const auto prefix = OrinScreenFraming::videoFramePrefix(header, data.size());
  EXPECT_EQ(concat({prefix.begin(), prefix.end()}, data), expected);
}

TEST(ScreenFraming, ParseHeader) {
  struct Case {
    ByteString bytes;
    std::optional<ParsedHeader> expected;
  };
  const Case cases[] = {
      {{0x02, 0x02, 0x00, 0x00, 0x00},
       ParsedHeader{OrinScreenMessageType::videoConfig, 0x02000000}},
      {{0x02, 0x02, 0x00, 0x00, 0x01}, std::nullopt},
      {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, std::nullopt},
      {{0x03, 0x01, 0x02, 0x03, 0x04, 0xAA},
       ParsedHeader{OrinScreenMessageType::videoFrame, 0x01020304}},
      {{0x01, 0x00, 0x00, 0x00, 0x00}, ParsedHeader{OrinScreenMessageType::control, 0}},
      {{0x00, 0x00, 0x00, 0x01, 0x00}, ParsedHeader{std::nullopt, 256}},
      {{0x04, 0x00, 0x00, 0x00, 0x07}, ParsedHeader{std::nullopt, 7}},
      {{0x01, 0x00, 0x00, 0x00}, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.bytes));
    EXPECT_EQ(OrinScreenFraming::parseHeader(c.bytes), c.expected);
  }
}

TEST(ScreenFrameHeader, Parse) {
  struct Case {
    ByteString bytes;
    std::optional<OrinScreenFrameHeader> expected;
  };
  const Case cases[] = {
      {{0, 0, 0, 0, 0, 0x16, 0xE3, 0x60, 0x02}, OrinScreenFrameHeader{1'500'000, true}},
      {{0, 0, 0, 0, 0, 0, 0, 0x01, 0x00}, OrinScreenFrameHeader{1, false}},
      {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0xAA},
       OrinScreenFrameHeader{std::numeric_limits<std::uint64_t>::max(), true}},
      {{0, 0, 0, 0, 0, 0, 0, 0}, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.bytes));
    const auto header = OrinScreenFrameHeader::parse(c.bytes);
    EXPECT_EQ(header, c.expected);
    if (header) {
      EXPECT_EQ(OrinScreenFrameHeader::parse(header->encoded()), header);
    }
  }
}

TEST(ScreenShape, RawValuesLabelsAndDetails) {
  struct Case {
    OrinScreenShape shape;
    std::string_view label;
    std::string_view detail;
  };
  const Case cases[] = {
      {OrinScreenShape::mirror, "Mac's Own Screen", "Mirrors a display the Mac already has."},
      {OrinScreenShape::ultrawide, "Ultrawide 21:9", "3440 \xC3\x97 1440 of desktop."},
      {OrinScreenShape::superUltrawide, "Super Ultrawide 32:9", "5120 \xC3\x97 1440 of desktop."},
  };
  ASSERT_EQ(allScreenShapes.size(), std::size(cases));
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto& c = cases[i];
    EXPECT_EQ(allScreenShapes[i], c.shape);
    EXPECT_EQ(rawValue(c.shape), static_cast<std::int64_t>(i));
    EXPECT_EQ(screenShapeFromRawValue(static_cast<std::int64_t>(i)), c.shape);
    EXPECT_EQ(label(c.shape), c.label);
    EXPECT_EQ(detail(c.shape), c.detail);
  }
  EXPECT_EQ(screenShapeFromRawValue(3), std::nullopt);
  EXPECT_EQ(screenShapeFromRawValue(-1), std::nullopt);
}

TEST(ScreenControlMessage, Encoding) {
  EXPECT_EQ(OrinScreenFraming::frame(OrinScreenControlMessage{}),
            concat({0x01, 0x00, 0x00, 0x00, 0x0F}, toBytes(R"({"kind":"ping"})")));

  const OrinScreenControlMessage hello{Kind::hello, 3,     "dev/1", "Headset", "tok",     "123456",
                                       "m",         "Mac", 2,       true,      "website", false};
  const std::string golden =
      R"({"kind":"hello","version":3,"deviceId":"dev\/1","deviceName":"Headset","token":"tok",)"
      R"("pairingCode":"123456","message":"m","name":"Mac","shape":2,"portal":true,)"
      R"("edition":"website","supportsVirtualDisplays":false})";
  EXPECT_EQ(encodeJSON(hello), golden);
  EXPECT_EQ(OrinScreenFraming::decodeControl(toBytes(golden)), hello);
}

TEST(ScreenControlMessage, Decoding) {
  OrinScreenControlMessage pong;
  pong.kind = Kind::pong;
  EXPECT_EQ(OrinScreenFraming::decodeControl(
                toBytes(R"({"kind":"pong","version":null,"shape":null,"future":1})")),
            pong);

  const std::string_view failures[] = {"not json",
                                       "{}",
                                       R"({"kind":"Ping"})",
                                       R"({"kind":null})",
                                       R"({"kind":"ping","version":"3"})",
                                       R"({"kind":"setShape","shape":1.5})"};
  for (const auto text : failures) {
    EXPECT_THROW((void)OrinScreenFraming::decodeControl(toBytes(text)), DecodingError) << text;
  }
}

TEST(ScreenVideoConfig, RoundTripAndRequiredKeys) {
  const OrinScreenVideoConfig config{"hvc1", 3440, 1440, 4, {{0x40, 0x01, 0x0C}, {0x42, 0x01}, {}}};
  const std::string golden = R"({"codec":"hvc1","width":3440,"height":1440,"nalLengthSize":4,)"
                             R"("parameterSets":["QAEM","QgE=",""]})";
  EXPECT_EQ(encodeJSON(config), golden);
  EXPECT_EQ(OrinScreenFraming::decodeVideoConfig(toBytes(golden)), config);

  for (const char* key : {"codec", "width", "height", "nalLengthSize", "parameterSets"}) {
    json::Value document = json::parse(golden);
    document.erase(key);
    try {
      (void)OrinScreenFraming::decodeVideoConfig(toBytes(document.dump()));
      ADD_FAILURE() << "decoded without " << key;
    } catch (const DecodingError& error) {
      EXPECT_EQ(error.kind(), DecodingError::Kind::keyNotFound) << key;
    }
  }
  EXPECT_THROW(
      (void)OrinScreenFraming::decodeVideoConfig(toBytes(
          R"({"codec":"hvc1","width":1,"height":1,"nalLengthSize":4,"parameterSets":["QgE"]})")),
      DecodingError);
}

using Frames = std::vector<std::pair<std::uint8_t, ByteString>>;

void drain(OrinScreenFrameReader& reader, Frames& frames) {
  OrinScreenFrameReader::Frame frame;
  OrinScreenFrameReader::Status status;
  while ((status = reader.next(frame)) == OrinScreenFrameReader::Status::frame) {
    EXPECT_EQ(frame.type, messageTypeFromByte(frame.typeByte));
    frames.emplace_back(frame.typeByte, frame.payload);
  }
  EXPECT_EQ(status, OrinScreenFrameReader::Status::needMore);
}

TEST(ScreenFrameReader, SameFramesHoweverTheStreamIsSplit) {
  const ByteString ping = toBytes(R"({"kind":"ping"})");
  const ByteString config =
      toBytes(encodeJSON(OrinScreenVideoConfig{"hvc1", 8, 8, 4, {ByteString{1}}}));
  const auto prefix = OrinScreenFraming::videoFramePrefix({42, false}, 3);
  const ByteString video{prefix.begin() + OrinScreenStream::headerLength, prefix.end()};
  const Frames expected{
      {1, ping}, {2, config}, {3, concat(video, ByteString{7, 8, 9})}, {9, {1, 2, 3}}, {1, {}}};

  ByteString stream = OrinScreenFraming::frame(OrinScreenControlMessage{});
  stream = concat(stream, OrinScreenFraming::frame(OrinScreenMessageType::videoConfig, config));
  stream = concat(stream, prefix);
  stream = concat(stream, ByteString{7, 8, 9, 9, 0, 0, 0, 3, 1, 2, 3});
  stream = concat(stream, OrinScreenFraming::frame(OrinScreenMessageType::control, {}));
  for (const auto& pieces : test::everySplit(std::span<const std::uint8_t>(stream))) {
    SCOPED_TRACE(testing::Message() << pieces[0].size() << " of " << pieces.size());
    OrinScreenFrameReader reader;
    Frames frames;
    for (const auto piece : pieces) {
      reader.append(piece);
      drain(reader, frames);
    }
    EXPECT_EQ(frames, expected);
    EXPECT_EQ(reader.bufferedBytes(), 0u);
  }
}

TEST(ScreenFrameReader, OversizedAnnouncementBreaksTheStream) {
  OrinScreenFrameReader reader;
  OrinScreenFrameReader::Frame frame;
  reader.append(ByteString{0x03, 0x02, 0x00, 0x00, 0x00});
  EXPECT_EQ(reader.next(frame), OrinScreenFrameReader::Status::needMore) << "the limit itself";

  OrinScreenFrameReader broken;
  broken.append(OrinScreenFraming::frame(OrinScreenControlMessage{}));
  broken.append(ByteString{0x03, 0x02, 0x00, 0x00, 0x01});
  EXPECT_EQ(broken.next(frame), OrinScreenFrameReader::Status::frame);
  EXPECT_EQ(broken.next(frame), OrinScreenFrameReader::Status::tooLarge);
  broken.append(OrinScreenFraming::frame(OrinScreenControlMessage{}));
  EXPECT_EQ(broken.next(frame), OrinScreenFrameReader::Status::tooLarge);
}

}  // namespace
}  // namespace orin
