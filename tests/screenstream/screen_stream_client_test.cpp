#include <gtest/gtest.h>

#include "ScreenStreamClient.h"

namespace orin::device {
namespace {

OrinScreenVideoConfig config(std::vector<ByteString> sets, std::int64_t nalLengthSize = 4) {
  return {"hvc1", 1920, 1080, nalLengthSize, std::move(sets)};
}

TEST(AnnexBWriterTest, TurnsLengthPrefixedFramesIntoAStartCodeStream) {
  struct Step {
    std::optional<OrinScreenVideoConfig> config;
    bool key = false;
    ByteString data;
    ByteString expected;
    bool malformed = false;
  };
  struct Case {
    std::string name;
    std::vector<Step> steps;
  };
  const Case cases[] = {
      {"nothing before the first key frame",
       {{config({{0xA}}), false, {0, 0, 0, 1, 0x11}, {}},
        {std::nullopt,
         true,
         {0, 0, 0, 1, 0x22, 0, 0, 0, 2, 0x33, 0x34},
         {0, 0, 0, 1, 0xA, 0, 0, 0, 1, 0x22, 0, 0, 0, 1, 0x33, 0x34}},
        {std::nullopt, false, {0, 0, 0, 1, 0x44}, {0, 0, 0, 1, 0x44}}}},
      {"a new configuration waits for the next key frame",
       {{config({{0xA}, {0xB}}),
         true,
         {0, 0, 0, 1, 0x01},
         {0, 0, 0, 1, 0xA, 0, 0, 0, 1, 0xB, 0, 0, 0, 1, 0x01}},
        {config({{0xC}}), false, {0, 0, 0, 1, 0x02}, {0, 0, 0, 1, 0x02}},
        {std::nullopt, true, {0, 0, 0, 1, 0x03}, {0, 0, 0, 1, 0xC, 0, 0, 0, 1, 0x03}},
        {std::nullopt, true, {0, 0, 0, 1, 0x04}, {0, 0, 0, 1, 0x04}}}},
      {"two-byte lengths", {{config({}, 2), true, {0, 2, 0x05, 0x06}, {0, 0, 0, 1, 0x05, 0x06}}}},
      {"length past the end", {{config({}), true, {0, 0, 0, 9, 0x01}, {}, true}}},
      {"truncated length", {{config({}), true, {0, 0, 0, 1, 0x01, 0, 0}, {}, true}}},
      {"impossible length width", {{config({}, 0), true, {0x01}, {}, true}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AnnexBWriter writer;
    for (const auto& step : c.steps) {
      if (step.config) writer.configure(*step.config);
      const OrinScreenFrameHeader header{1, step.key};
      if (step.malformed) {
        EXPECT_THROW(writer.frame(header, step.data), DeviceError);
      } else {
        EXPECT_EQ(writer.frame(header, step.data), step.expected);
      }
    }
  }
}

}  // namespace
}  // namespace orin::device
