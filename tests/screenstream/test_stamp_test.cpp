#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "TestStamp.h"

namespace orin::teststamp {
namespace {

struct Picture {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> bgra;
};

// Draws the stamp as the test pattern does, on a busy background.
Picture draw(const Stamp& stamp, int width, int height, int cell, int originX = 0,
             int originY = 0) {
  Picture picture{width, height,
                  std::vector<std::uint8_t>(static_cast<std::size_t>(width * height * 4))};
  std::mt19937 random(7);
  for (auto& byte : picture.bgra)
    byte = static_cast<std::uint8_t>(random());
  auto bits = stampBits(stamp);
  for (int y = 0; y < rows * cell; ++y) {
    for (int x = 0; x < columns * cell; ++x) {
      bool white = bits[static_cast<std::size_t>((y / cell) * columns + x / cell)];
      auto* p = &picture.bgra[static_cast<std::size_t>(((originY + y) * width + originX + x) * 4)];
      p[0] = p[1] = p[2] = white ? 255 : 0;
    }
  }
  return picture;
}

// Box-filtered down-scaling, as a video scaler would blur the cell edges.
Picture scaled(const Picture& in, int width, int height) {
  Picture out{width, height,
              std::vector<std::uint8_t>(static_cast<std::size_t>(width * height * 4))};
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      int x0 = x * in.width / width, x1 = (x + 1) * in.width / width;
      int y0 = y * in.height / height, y1 = (y + 1) * in.height / height;
      for (int c = 0; c < 4; ++c) {
        int sum = 0, n = 0;
        for (int sy = y0; sy < y1; ++sy) {
          for (int sx = x0; sx < x1; ++sx) {
            sum += in.bgra[static_cast<std::size_t>((sy * in.width + sx) * 4 + c)];
            ++n;
          }
        }
        out.bgra[static_cast<std::size_t>((y * width + x) * 4 + c)] =
            static_cast<std::uint8_t>(sum / n);
      }
    }
  }
  return out;
}

std::vector<std::uint8_t> luma(const Picture& picture, int noise) {
  std::mt19937 random(11);
  std::uniform_int_distribution<int> jitter(-noise, noise);
  std::vector<std::uint8_t> y(static_cast<std::size_t>(picture.width * picture.height));
  for (std::size_t i = 0; i < y.size(); ++i) {
    // Limited-range luma, as a decoder hands it out, plus coding noise.
    int value = 16 + picture.bgra[i * 4 + 1] * 219 / 255 + jitter(random);
    y[i] = static_cast<std::uint8_t>(std::clamp(value, 0, 255));
  }
  return y;
}

const Stamp sample{0x0001'2345'6789'ABCDull, 4'000'000'001u};

TEST(TestStamp, ReadsBackWhatWasDrawn) {
  auto picture = draw(sample, 1100, 64, 16);
  EXPECT_EQ(readStampedTime(picture.bgra.data(), PixelFormat::bgra, 1100, 64, 1100 * 4), sample);

  auto offset = draw(sample, 1600, 100, 20, 300, 40);
  EXPECT_EQ(
      readStampedTime(offset.bgra.data(), PixelFormat::bgra, 1600, 100, 1600 * 4, 20, 300, 40),
      sample);
}

TEST(TestStamp, SurvivesScalingAndCodingNoise) {
  auto native = draw(sample, 1440, 60, 16);
  struct Case {
    int width, height, noise;
  } cases[] = {{1080, 45, 0}, {1080, 45, 40}, {1440, 60, 60}};
  for (const auto& c : cases) {
    auto picture = scaled(native, c.width, c.height);
    double cell = 16.0 * c.width / native.width;
    auto y = luma(picture, c.noise);
    EXPECT_EQ(readStampedTime(y.data(), PixelFormat::luma, c.width, c.height, c.width, cell),
              sample)
        << c.width << " noise " << c.noise;
  }
}

TEST(TestStamp, RejectsTornMissingOrCutOffStamps) {
  auto picture = draw(sample, 1100, 64, 16);
  auto later = draw({sample.timeMicroseconds + 16'667, sample.frameCounter + 1}, 1100, 64, 16);
  // The upper half of the stamp from one frame, the lower from the next.
  auto torn = picture;
  std::copy(later.bgra.begin() + 1100 * 4 * 16, later.bgra.end(),
            torn.bgra.begin() + 1100 * 4 * 16);
  EXPECT_EQ(readStampedTime(torn.bgra.data(), PixelFormat::bgra, 1100, 64, 1100 * 4), std::nullopt);

  std::vector<std::uint8_t> grey(1100 * 64 * 4, 128);
  EXPECT_EQ(readStampedTime(grey.data(), PixelFormat::bgra, 1100, 64, 1100 * 4), std::nullopt);
  // Too narrow for the stamp at this cell size.
  EXPECT_EQ(readStampedTime(picture.bgra.data(), PixelFormat::bgra, 1000, 64, 1100 * 4),
            std::nullopt);
}

}  // namespace
}  // namespace orin::teststamp
