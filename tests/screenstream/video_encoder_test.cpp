#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "OrinLink/screenstream/HEVCBitstream.h"
#include "OrinLink/screenstream/LibavHEVCEncoder.h"
#include "OrinLink/screenstream/PixelConversion.h"
#include "OrinLink/screenstream/ThreadPriority.h"
#include "OrinLink/screenstream/VideoEncoder.h"

#include "ScreenTestFakes.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

// libx265 3.5 never frees some of what x265_encoder_open allocates (frame filter buffers among
// them); the leak checker would otherwise fail every test that opens an encoder.
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libx265.so\n";
}

namespace orin::screen {
namespace {

using namespace std::chrono_literals;

constexpr int streamWidth = 640;
constexpr int streamHeight = 360;
constexpr int framesPerSecond = 30;
constexpr std::uint64_t frameGap = 1'000'000 / framesPerSecond;

// Left half black, right half white, the top quarter of the left half red, and a grey box that
// moves every frame. Rows are padded so that a converter that ignores bytesPerRow shows it.
CapturedFrame syntheticFrame(int width, int height, int index, std::uint64_t time) {
  const int bytesPerRow = width * 4 + 64;
  auto pixels = std::make_shared<std::vector<std::uint8_t>>(
      static_cast<std::size_t>(bytesPerRow) * static_cast<std::size_t>(height), 0x00);
  const int box = height / 6;
  const int boxX = (index * 7) % (width / 2 - box);
  const int boxY = height / 3 + (index * 3) % (height / 3);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = pixels->data() + std::ptrdiff_t{y} * bytesPerRow + x * 4;
      if (x >= boxX && x < boxX + box && y >= boxY && y < boxY + box) {
        std::fill_n(p, 3, 0x80);
      } else if (x >= width / 2) {
        std::fill_n(p, 3, 0xFF);
      } else if (y < height / 4) {
        p[2] = 0xFF;
      }
    }
  }
  return {width, height, bytesPerRow, pixels->data(), time, pixels};
}

struct Collector : fake::Watched {
  VideoEncoder::Output output() {
    return [this](EncodedVideoFrame frame) { record([&] { frames.push_back(std::move(frame)); }); };
  }

  // `done` is given the number of frames so far.
  template <class Done>
  bool waitUntil(Done done) {
    return eventually([&] { return done(frames.size()); }, 20s);
  }

  std::vector<EncodedVideoFrame> frames;
};

struct Decoded {
  int pictures = 0;
  int errors = 0;
  int width = 0;
  int height = 0;
  // Luma of the last picture in the black, white and red areas.
  int black = -1;
  int white = -1;
  int red = -1;
};

// Feeds the frames from `first` on to libavcodec's decoder as Annex B, with the parameter sets
// in front of every keyframe, as a client joining at `first` would.
Decoded decode(const std::vector<EncodedVideoFrame>& frames, std::size_t first) {
  Decoded result;
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_HEVC);
  AVCodecContext* context = avcodec_alloc_context3(codec);
  context->thread_count = 1;
  context->err_recognition = AV_EF_EXPLODE | AV_EF_BITSTREAM;
  if (avcodec_open2(context, codec, nullptr) < 0) {
    avcodec_free_context(&context);
    result.errors = 1;
    return result;
  }
  AVPacket* packet = av_packet_alloc();
  AVFrame* picture = av_frame_alloc();
  std::vector<ByteString> parameterSets;
  const auto drain = [&] {
    while (avcodec_receive_frame(context, picture) == 0) {
      ++result.pictures;
      if (picture->decode_error_flags != 0 || (picture->flags & AV_FRAME_FLAG_CORRUPT) != 0)
        ++result.errors;
      result.width = picture->width;
      result.height = picture->height;
      const auto luma = [&](int x, int y) {
        return picture->data[0][picture->linesize[0] * y + x];
      };
      result.black = luma(picture->width / 4, picture->height * 15 / 16);
      result.white = luma(picture->width * 3 / 4, picture->height / 2);
      result.red = luma(picture->width / 4, picture->height / 8);
    }
  };
  for (std::size_t i = 0; i < frames.size(); ++i) {
    if (frames[i].config) parameterSets = frames[i].config->parameterSets;
    // The stream server hands a joining client the latest configuration, and no earlier frame.
    if (i < first) continue;
    ByteString annexB;
    hevc::appendAnnexB(
        frames[i], frames[i].header.isKeyframe ? parameterSets : std::vector<ByteString>{}, annexB);
    packet->data = annexB.data();
    packet->size = static_cast<int>(annexB.size());
    if (avcodec_send_packet(context, packet) < 0) ++result.errors;
    drain();
  }
  avcodec_send_packet(context, nullptr);
  drain();
  av_frame_free(&picture);
  av_packet_free(&packet);
  avcodec_free_context(&context);
  return result;
}

int firstSliceType(const EncodedVideoFrame& frame) {
  const auto units = hevc::splitLengthPrefixed(frame.data);
  if (!units) return -1;
  for (hevc::Nal unit : *units) {
    const int type = hevc::nalUnitType(unit).value_or(-1);
    if (type >= 0 && type < 32) return type;
  }
  return -1;
}

// One image at a time, each encoded before the next is submitted, from a source larger than
// the stream that changes size halfway.
TEST(VideoEncoder, ProducesADecodableStreamWithKeyframesOnDemandAndOnTime) {
  constexpr int count = 90;
  constexpr int forcedAt = 20;
  const std::uint64_t start = monotonicMicroseconds();
  Collector collector;
  {
    VideoEncoder encoder(streamWidth, streamHeight, framesPerSecond, 1'000'000, collector.output());
    EXPECT_EQ(encoder.width(), streamWidth);
    EXPECT_FALSE(encoder.backendName().empty());
    for (int i = 0; i < count; ++i) {
      if (i == forcedAt) {
        encoder.forceKeyframe();
        encoder.forceKeyframe();
      }
      const bool large = i >= count / 2;
      encoder.encode(syntheticFrame(large ? 1280 : 960, large ? 720 : 540, i,
                                    start + static_cast<std::uint64_t>(i) * frameGap));
      ASSERT_TRUE(collector.waitUntil([&](std::size_t n) { return n > std::size_t(i); }))
          << "frame " << i;
    }
    const VideoEncoder::Statistics statistics = encoder.statistics();
    EXPECT_EQ(statistics.submitted, std::uint64_t{count});
    EXPECT_EQ(statistics.delivered, std::uint64_t{count});
    EXPECT_EQ(statistics.replaced, 0u);
    EXPECT_EQ(statistics.failed, 0u);
    // The encoder library's pool lowers its threads' priority; they are put back where the
    // process may raise a priority.
    rlimit niceLimit{};
    const int own = getpriority(PRIO_PROCESS, 0);
    if (geteuid() == 0 ||
        (getrlimit(RLIMIT_NICE, &niceLimit) == 0 && 20 - own <= int(niceLimit.rlim_cur))) {
      for (const pid_t thread : ThreadPriorityKeeper::threads())
        EXPECT_EQ(getpriority(PRIO_PROCESS, static_cast<id_t>(thread)), own) << thread;
    }
  }
  const std::vector<EncodedVideoFrame>& frames = collector.frames;
  ASSERT_EQ(frames.size(), std::size_t{count});

  ASSERT_TRUE(frames[0].header.isKeyframe);
  ASSERT_TRUE(frames[0].config);
  EXPECT_EQ(frames[0].config->codec, "hevc");
  EXPECT_EQ(frames[0].config->width, streamWidth);
  EXPECT_EQ(frames[0].config->height, streamHeight);
  EXPECT_EQ(frames[0].config->nalLengthSize, 4);
  ASSERT_EQ(frames[0].config->parameterSets.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i)
    EXPECT_EQ(hevc::nalUnitType(frames[0].config->parameterSets[i]), 32 + static_cast<int>(i));

  std::vector<std::uint64_t> keyframeTimes;
  for (std::size_t i = 0; i < frames.size(); ++i) {
    const EncodedVideoFrame& frame = frames[i];
    EXPECT_EQ(frame.header.presentationTimeMicroseconds, start + i * frameGap) << i;
    if (i > 0) {
      EXPECT_FALSE(frame.config) << i;
    }
    const auto units = hevc::splitLengthPrefixed(frame.data);
    ASSERT_TRUE(units && !units->empty()) << i;
    for (hevc::Nal unit : *units)
      EXPECT_FALSE(hevc::isParameterSet(hevc::nalUnitType(unit).value_or(0))) << i;
    if (frame.header.isKeyframe) {
      keyframeTimes.push_back(frame.header.presentationTimeMicroseconds);
      const int slice = firstSliceType(frame);
      EXPECT_TRUE(slice == 19 || slice == 20) << "frame " << i << " starts with NAL " << slice;
    }
  }
  EXPECT_TRUE(frames[forcedAt].header.isKeyframe);
  EXPECT_FALSE(frames[forcedAt + 1].header.isKeyframe);
  // First, forced, and one more two seconds after the forced one.
  EXPECT_GE(keyframeTimes.size(), 3u);
  keyframeTimes.push_back(frames.back().header.presentationTimeMicroseconds);
  for (std::size_t i = 1; i < keyframeTimes.size(); ++i)
    EXPECT_LE(keyframeTimes[i] - keyframeTimes[i - 1], 2'000'000u);

  const Decoded whole = decode(frames, 0);
  EXPECT_EQ(whole.pictures, count);
  EXPECT_EQ(whole.errors, 0);
  EXPECT_EQ(whole.width, streamWidth);
  EXPECT_EQ(whole.height, streamHeight);
  // BT.709 in limited range: black 16, white 235, pure red 63.
  EXPECT_NEAR(whole.black, 16, 4);
  EXPECT_NEAR(whole.white, 235, 4);
  EXPECT_NEAR(whole.red, 63, 4);

  const Decoded joined = decode(frames, forcedAt);
  EXPECT_EQ(joined.pictures, count - forcedAt);
  EXPECT_EQ(joined.errors, 0);
}

// Submitting faster than the encoder can go: images still waiting are replaced rather than
// queued, the newest always gets through, and every image is released with the encoder.
TEST(VideoEncoder, ReplacesWaitingImagesWithNewerOnes) {
  constexpr std::uint64_t count = 40;
  const std::uint64_t start = monotonicMicroseconds();
  const CapturedFrame source = syntheticFrame(1280, 720, 0, start);
  std::vector<std::weak_ptr<const void>> owners;
  Collector collector;
  {
    VideoEncoder encoder(streamWidth, streamHeight, framesPerSecond, 1'000'000, collector.output());
    for (std::uint64_t i = 0; i < count; ++i) {
      CapturedFrame frame = source;
      frame.presentationTimeMicroseconds = start + i * frameGap;
      frame.owner = std::make_shared<std::shared_ptr<const void>>(source.owner);
      owners.push_back(frame.owner);
      encoder.encode(frame);
    }
    ASSERT_TRUE(collector.waitUntil(
        [&](std::size_t n) { return n + encoder.statistics().replaced >= count; }));
    EXPECT_EQ(
        collector.read([&] { return collector.frames.size(); }) + encoder.statistics().replaced,
        count);
    EXPECT_GE(encoder.statistics().replaced, 1u);
  }
  std::vector<std::uint64_t> times;
  for (const auto& frame : collector.frames)
    times.push_back(frame.header.presentationTimeMicroseconds);
  EXPECT_EQ(times.back(), start + (count - 1) * frameGap);
  EXPECT_TRUE(std::is_sorted(times.begin(), times.end()));
  for (const auto& owner : owners)
    EXPECT_TRUE(owner.expired());
}

// BT.709 limited range; chroma is the mean of each 2x2 block. The image is two blocks wide, each
// block half one colour (top) and half the other (bottom), in rows padded beyond the picture.
TEST(PixelConversion, ConvertsEachBlockToBT709LimitedRange) {
  struct Colour {
    std::uint8_t r, g, b;
  };
  struct Case {
    Colour top, bottom;
    std::uint8_t yTop, yBottom, u, v;
  };
  const Case cases[] = {
      {{0, 0, 0}, {0, 0, 0}, 16, 16, 128, 128},
      {{255, 255, 255}, {255, 255, 255}, 235, 235, 128, 128},
      {{255, 0, 0}, {255, 0, 0}, 63, 63, 102, 240},
      {{0, 255, 0}, {0, 255, 0}, 173, 173, 42, 26},
      {{0, 0, 255}, {0, 0, 255}, 32, 32, 240, 118},
      {{0, 0, 0}, {255, 255, 255}, 16, 235, 128, 128},
  };
  for (const auto& c : cases) {
    constexpr int width = 4;
    constexpr int stride = width * 4 + 8;
    std::vector<std::uint8_t> bgra(stride * 2, 0xEE);
    for (int x = 0; x < width; ++x) {
      for (int row = 0; row < 2; ++row) {
        const Colour& colour = row == 0 ? c.top : c.bottom;
        std::uint8_t* pixel = &bgra[static_cast<std::size_t>(row * stride + x * 4)];
        pixel[0] = colour.b;
        pixel[1] = colour.g;
        pixel[2] = colour.r;
      }
    }
    std::vector<std::uint8_t> y(width * 2), u(width / 2), v(width / 2);
    convertBGRAToI420(bgra.data(), stride, width, 2,
                      {y.data(), u.data(), v.data(), width, width / 2, width / 2});
    const std::vector<std::uint8_t> expectedY{c.yTop,    c.yTop,    c.yTop,    c.yTop,
                                              c.yBottom, c.yBottom, c.yBottom, c.yBottom};
    EXPECT_EQ(y, expectedY) << int(c.top.r) << "," << int(c.top.g) << "," << int(c.top.b);
    EXPECT_EQ(u, (std::vector<std::uint8_t>{c.u, c.u}));
    EXPECT_EQ(v, (std::vector<std::uint8_t>{c.v, c.v}));
  }
}

// Two threads take half the rows each; the picture is the one a single pass makes.
TEST(PixelConversion, TwoThreadsMakeTheSamePictureAsOne) {
  constexpr int width = 64;
  constexpr int height = 38;  // halves meet on row 18, not at the middle
  std::vector<std::uint8_t> bgra(width * 4 * height);
  std::mt19937 random(3);
  for (auto& byte : bgra)
    byte = static_cast<std::uint8_t>(random());
  const CapturedFrame frame{width, height, width * 4, bgra.data(), 0, nullptr};
  YUVConverter single(width, height, YUVConverter::Layout::planar, 1);
  YUVConverter split(width, height, YUVConverter::Layout::planar, 2);
  ASSERT_EQ(single.convert(frame), 0);
  ASSERT_EQ(split.convert(frame), 0);
  for (int plane = 0; plane < 3; ++plane) {
    const int columns = plane == 0 ? width : width / 2;
    for (int row = 0; row < (plane == 0 ? height : height / 2); ++row) {
      const auto line = [&](YUVConverter& c) {
        return c.target()->data[plane] + row * c.target()->linesize[plane];
      };
      ASSERT_EQ(std::memcmp(line(single), line(split), static_cast<std::size_t>(columns)), 0)
          << plane << ", " << row;
    }
  }
}

TEST(VideoEncoder, RefusesSizesItCannotEncode) {
  for (const int width : {641, 0}) {
    try {
      VideoEncoder encoder(width, streamHeight, framesPerSecond, 1'000'000, [](auto) {});
      ADD_FAILURE() << width;
    } catch (const VideoEncoderError& error) {
      EXPECT_EQ(error.description(), "Could not create the HEVC encoder (libavcodec error -22).");
    }
  }
}

}  // namespace
}  // namespace orin::screen
