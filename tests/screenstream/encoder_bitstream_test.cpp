#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLink/screenstream/HEVCBitstream.h"

namespace orin::screen::hevc {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes nal(int type, Bytes payload = {0xAA}) {
  Bytes unit{static_cast<std::uint8_t>(type << 1), 0x01};
  unit.insert(unit.end(), payload.begin(), payload.end());
  return unit;
}

Bytes annexB(const std::vector<Bytes>& nals, bool longStartCodes = true) {
  Bytes stream;
  for (const Bytes& unit : nals) {
    if (longStartCodes) stream.push_back(0);
    stream.insert(stream.end(), {0, 0, 1});
    stream.insert(stream.end(), unit.begin(), unit.end());
  }
  return stream;
}

std::vector<Bytes> copies(const std::vector<Nal>& nals) {
  std::vector<Bytes> result;
  for (Nal unit : nals)
    result.emplace_back(unit.begin(), unit.end());
  return result;
}

struct SplitCase {
  std::string name;
  Bytes stream;
  std::vector<Bytes> expected;
};

TEST(HEVCBitstream, SplitsAnnexBStreams) {
  const std::vector<SplitCase> cases{
      {"four-byte start codes",
       {0, 0, 0, 1, 0x40, 0x01, 0xAA, 0, 0, 0, 1, 0x42, 0x01, 0xBB},
       {{0x40, 0x01, 0xAA}, {0x42, 0x01, 0xBB}}},
      {"three-byte start codes",
       {0, 0, 1, 0x26, 0x01, 0xCC, 0, 0, 1, 0x02, 0x01, 0xDD},
       {{0x26, 0x01, 0xCC}, {0x02, 0x01, 0xDD}}},
      {"mixed start codes",
       {0, 0, 0, 1, 0x40, 0x01, 0, 0, 1, 0x42, 0x01, 0, 0, 0, 1, 0x44, 0x01},
       {{0x40, 0x01}, {0x42, 0x01}, {0x44, 0x01}}},
      {"bytes before the first start code", {0xFF, 0x12, 0, 0, 1, 0x26, 0x01}, {{0x26, 0x01}}},
      {"trailing zero bytes", {0, 0, 1, 0x26, 0x01, 0x80, 0, 0, 0}, {{0x26, 0x01, 0x80}}},
      {"empty unit between start codes", {0, 0, 1, 0, 0, 1, 0x26, 0x01}, {{0x26, 0x01}}},
      {"emulation prevention kept",
       {0, 0, 1, 0x26, 0x01, 0, 0, 3, 1, 0x55},
       {{0x26, 0x01, 0, 0, 3, 1, 0x55}}},
      {"start code at the end", {0, 0, 1, 0x26, 0x01, 0, 0, 0, 1}, {{0x26, 0x01}}},
      {"no start code", {0x26, 0x01, 0x02, 0x03}, {}},
      {"empty", {}, {}},
  };
  for (const SplitCase& c : cases)
    EXPECT_EQ(copies(splitAnnexB(c.stream)), c.expected) << c.name;
}

TEST(HEVCBitstream, TellsRandomAccessPointsAndParameterSetsByType) {
  for (int type = 0; type < 64; ++type) {
    ASSERT_EQ(nalUnitType(nal(type)), type);
    EXPECT_EQ(isIrap(type), type >= 16 && type <= 23) << type;
    EXPECT_EQ(isParameterSet(type), type >= 32 && type <= 34) << type;
  }
  EXPECT_EQ(nalUnitType(Bytes{0x40}), std::nullopt);
}

TEST(HEVCBitstream, ConvertsTimestampsToMicroseconds) {
  struct Case {
    std::optional<std::int64_t> pts;
    TimeBase timeBase;
    std::uint64_t expected;
  };
  constexpr auto max = std::numeric_limits<std::int64_t>::max();
  for (const Case c : {
           Case{std::nullopt, {1, 1'000'000}, 0},
           Case{-5, {1, 1'000'000}, 0},
           Case{0, {1, 1'000'000}, 0},
           Case{1'500'000, {1, 1'000'000}, 1'500'000},
           Case{90'000, {1, 90'000}, 1'000'000},
           Case{2'500, {1, 1'000}, 2'500'000},
           Case{1, {1, 3}, 333'333},
           Case{7, {1001, 30'000}, 233'566},
           Case{max, {1, 1}, std::numeric_limits<std::uint64_t>::max()},
           Case{max, {2, 1}, std::numeric_limits<std::uint64_t>::max()},
           Case{10, {0, 1}, 0},
       }) {
    EXPECT_EQ(toMicroseconds(c.pts, c.timeBase), c.expected)
        << (c.pts ? *c.pts : -1) << " in " << c.timeBase.num << "/" << c.timeBase.den;
  }
}

// One packet after another through one assembler, as an encoder would deliver
// them.
TEST(HEVCBitstream, AssemblesFramesAndAnnouncesChangedParameterSets) {
  const Bytes vps = nal(32, {1});
  const Bytes sps = nal(33, {2});
  const Bytes pps = nal(34, {3});
  const Bytes newSps = nal(33, {9});
  const Bytes idr = nal(19, {0x11, 0x22});
  const Bytes cra = nal(21);
  const Bytes trail = nal(1, {0x33});
  const Bytes sei = nal(39);

  struct Step {
    std::string name;
    std::vector<Bytes> nals;
    bool keyFlag;
    bool keyframe;
    std::vector<Bytes> data;
    // The parameter sets announced with the frame; none when empty.
    std::vector<Bytes> config;
  };
  const std::vector<Step> steps{
      {"first keyframe, sets out of order",
       {pps, vps, sps, sei, idr},
       true,
       true,
       {sei, idr},
       {vps, sps, pps}},
      {"delta frame", {trail}, false, false, {trail}, {}},
      {"same sets repeated", {vps, sps, pps, idr}, false, true, {idr}, {}},
      {"key flag alone", {trail}, true, true, {trail}, {}},
      {"clean random access", {cra}, false, true, {cra}, {}},
      {"only the SPS changes", {newSps, idr}, true, true, {idr}, {vps, newSps, pps}},
      {"back to the old SPS", {sps, trail}, false, false, {trail}, {vps, sps, pps}},
  };

  FrameAssembler assembler(640, 360);
  for (const Step& step : steps) {
    const Bytes stream = annexB(step.nals, step.name.size() % 2 == 0);
    const auto frame = assembler.assemble({stream, step.keyFlag, 40, {1, 1'000'000}});
    ASSERT_TRUE(frame) << step.name;
    EXPECT_EQ(frame->header.isKeyframe, step.keyframe) << step.name;
    EXPECT_EQ(frame->header.presentationTimeMicroseconds, 40u) << step.name;
    const auto units = splitLengthPrefixed(frame->data);
    ASSERT_TRUE(units) << step.name;
    EXPECT_EQ(copies(*units), step.data) << step.name;
    ASSERT_EQ(frame->config.has_value(), !step.config.empty()) << step.name;
    if (frame->config) {
      EXPECT_EQ(frame->config->codec, "hevc");
      EXPECT_EQ(frame->config->width, 640);
      EXPECT_EQ(frame->config->height, 360);
      EXPECT_EQ(frame->config->nalLengthSize, 4);
      EXPECT_EQ(frame->config->parameterSets, step.config) << step.name;
    }
  }
}

TEST(HEVCBitstream, WritesFourByteBigEndianLengths) {
  const Bytes unit = nal(1, Bytes(300, 0x5A));
  const auto frame = FrameAssembler(2, 2).assemble({annexB({unit}), false, {}, {}});
  ASSERT_TRUE(frame);
  EXPECT_EQ(Bytes(frame->data.begin(), frame->data.begin() + 4), (Bytes{0, 0, 0x01, 0x2E}));
  EXPECT_EQ(frame->data.size(), 4 + unit.size());
  for (const Bytes& data : {Bytes{0, 0, 0}, Bytes{0, 0, 0, 3, 0x26, 0x01}})
    EXPECT_FALSE(splitLengthPrefixed(data));
}

TEST(HEVCBitstream, ParameterSetsOutsideThePacketsAndPacketsWithoutPictures) {
  const Bytes vps = nal(32), sps = nal(33), pps = nal(34), idr = nal(20);

  FrameAssembler global(8, 8);
  global.adoptParameterSets(annexB({vps, sps, pps}));
  auto frame = global.assemble({annexB({idr}), true, 0, {}});
  ASSERT_TRUE(frame && frame->config);
  EXPECT_EQ(frame->config->parameterSets, (std::vector<Bytes>{vps, sps, pps}));

  FrameAssembler headersFirst(8, 8);
  EXPECT_FALSE(headersFirst.assemble({annexB({vps, sps, pps}), false, 0, {}}));
  frame = headersFirst.assemble({annexB({idr}), true, 0, {}});
  ASSERT_TRUE(frame && frame->config);
  EXPECT_EQ(frame->config->parameterSets.size(), 3u);

  FrameAssembler none(8, 8);
  frame = none.assemble({annexB({idr}), true, 0, {}});
  ASSERT_TRUE(frame);
  EXPECT_FALSE(frame->config);
}

}  // namespace
}  // namespace orin::screen::hevc
