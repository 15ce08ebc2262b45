#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "PipelineSupport.h"

namespace orin::screenbench {
namespace {

using Bytes = std::vector<std::uint8_t>;

void text(Bytes& out, std::string_view characters) {
  for (char c : characters)
    out.push_back(static_cast<std::uint8_t>(c));
}

void put(Bytes& out, std::string_view code, std::uint32_t size) {
  text(out, code);
  for (int shift = 0; shift < 32; shift += 8)
    out.push_back(static_cast<std::uint8_t>(size >> shift));
}

void chunk(Bytes& out, std::string_view code, const Bytes& data) {
  put(out, code, static_cast<std::uint32_t>(data.size()));
  out.insert(out.end(), data.begin(), data.end());
  if (data.size() % 2 != 0) out.push_back(0);
}

// What ffmpeg writes to a pipe: RIFF, the header list with a stream list inside, JUNK, then the
// movi list whose size is unknown and a chunk per packet, odd sizes padded.
Bytes aviStream() {
  Bytes header;
  text(header, "hdrl");
  chunk(header, "avih", Bytes(56, 7));
  Bytes streamList;
  text(streamList, "strl");
  chunk(streamList, "strh", Bytes(56, 1));
  put(header, "LIST", static_cast<std::uint32_t>(streamList.size()));
  header.insert(header.end(), streamList.begin(), streamList.end());

  Bytes out;
  put(out, "RIFF", 0);
  text(out, "AVI ");
  put(out, "LIST", static_cast<std::uint32_t>(header.size()));
  out.insert(out.end(), header.begin(), header.end());
  chunk(out, "JUNK", Bytes(10, 0));
  put(out, "LIST", 0);
  text(out, "movi");
  chunk(out, "00dc", Bytes{1, 2, 3});
  chunk(out, "00dc", Bytes{});
  chunk(out, "00dc", Bytes{4, 5, 6, 7});
  return out;
}

std::vector<AviChunkReader::Chunk> readAll(const Bytes& stream, std::size_t piece) {
  AviChunkReader reader;
  std::vector<AviChunkReader::Chunk> chunks;
  for (std::size_t at = 0; at < stream.size(); at += piece) {
    const std::size_t n = std::min(piece, stream.size() - at);
    reader.append({stream.data() + at, n});
    AviChunkReader::Chunk next;
    while (reader.next(next))
      chunks.push_back(next);
  }
  return chunks;
}

TEST(AviChunkReader, YieldsEveryChunkOutsideTheHeaderListWhateverThePieces) {
  const Bytes stream = aviStream();
  for (std::size_t piece : {std::size_t{1}, std::size_t{3}, std::size_t{8}, stream.size()}) {
    SCOPED_TRACE(piece);
    const auto chunks = readAll(stream, piece);
    ASSERT_EQ(chunks.size(), 4u);
    EXPECT_EQ(chunks[0].code, "JUNK");
    EXPECT_EQ(chunks[1].data, (Bytes{1, 2, 3}));
    EXPECT_TRUE(chunks[2].data.empty());
    EXPECT_EQ(chunks[3].code, "00dc");
    EXPECT_EQ(chunks[3].data, (Bytes{4, 5, 6, 7}));
  }
}

TEST(AviChunkReader, HoldsBackAChunkUntilItsPaddingHasArrived) {
  Bytes stream;
  put(stream, "RIFF", 0);
  text(stream, "AVI ");
  put(stream, "LIST", 0);
  text(stream, "movi");
  chunk(stream, "00dc", Bytes{1, 2, 3});
  AviChunkReader reader;
  reader.append({stream.data(), stream.size() - 1});
  AviChunkReader::Chunk next;
  EXPECT_FALSE(reader.next(next));
  reader.append({&stream.back(), 1});
  ASSERT_TRUE(reader.next(next));
  EXPECT_EQ(next.data, (Bytes{1, 2, 3}));
  EXPECT_FALSE(reader.next(next));
}

TEST(Percentiles, NearestRank) {
  struct Case {
    std::vector<double> values;
    double p50, p99, max;
  };
  const std::vector<Case> cases{
      {{5}, 5, 5, 5},
      {{4, 1, 3, 2}, 2, 4, 4},
      {{10, 20, 30, 40, 50, 60, 70, 80, 90, 100}, 50, 100, 100},
  };
  for (const auto& c : cases) {
    const Percentiles p = percentiles(c.values);
    EXPECT_EQ(p.count, c.values.size());
    EXPECT_EQ(p.p50, c.p50);
    EXPECT_EQ(p.p99, c.p99);
    EXPECT_EQ(p.max, c.max);
  }
  EXPECT_EQ(percentiles({}).count, 0u);
}

TEST(Slope, LeastSquares) {
  const std::vector<double> x{0, 1, 2, 3};
  EXPECT_DOUBLE_EQ(slope(x, std::vector<double>{1, 3, 5, 7}), 2.0);
  EXPECT_DOUBLE_EQ(slope(x, std::vector<double>{4, 4, 4, 4}), 0.0);
  EXPECT_DOUBLE_EQ(slope(std::vector<double>{2, 2}, std::vector<double>{1, 9}), 0.0);
  EXPECT_DOUBLE_EQ(slope(std::vector<double>{1}, std::vector<double>{1}), 0.0);
}

}  // namespace
}  // namespace orin::screenbench
