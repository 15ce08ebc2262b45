// The encoder on its own: a BGRA image in, the coded frame out, one at a time as a paced capture
// would deliver them; and the libswscale pass alone. The content is a page of text-like marks
// scrolling by four rows per frame over a gradient, with a box moving across it.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "OrinLink/screenstream/LibavHEVCEncoder.h"
#include "OrinLink/screenstream/VideoEncoder.h"

namespace {

using orin::screen::CapturedFrame;
using orin::screen::EncodedVideoFrame;
using orin::screen::VideoEncoder;
using orin::screen::YUVConverter;

constexpr int framesPerSecond = 60;
constexpr int scrollRows = 4;
constexpr int scrollRange = 480;

// Taller than the screen; each frame is a window into it, so making one costs nothing.
class ScrollingPage {
 public:
  ScrollingPage(int width, int height)
      : width_(width),
        height_(height),
        stride_(width * 4),
        pixels_(static_cast<std::size_t>(stride_) *
                static_cast<std::size_t>(height + scrollRange)) {
    std::mt19937 random(7);
    const int rows = height + scrollRange;
    for (int y = 0; y < rows; ++y) {
      for (int x = 0; x < width; ++x) {
        std::uint8_t* pixel = at(x, y);
        pixel[0] = static_cast<std::uint8_t>(200 + 55 * x / width);
        pixel[1] = static_cast<std::uint8_t>(230 + 25 * y / rows);
        pixel[2] = 240;
        pixel[3] = 0xFF;
      }
    }
    // Lines of "words": runs of 7-pixel glyph cells with random strokes, 20 rows apart.
    for (int line = 8; line + 14 < rows; line += 20) {
      int x = 16;
      while (x < width - 80) {
        const int letters = 2 + static_cast<int>(random() % 9);
        for (int letter = 0; letter < letters && x < width - 16; ++letter, x += 8) {
          const std::uint32_t strokes = static_cast<std::uint32_t>(random());
          for (int dy = 0; dy < 12; ++dy) {
            for (int dx = 0; dx < 6; ++dx) {
              if ((strokes >> ((dy / 3) * 6 + dx) % 32) & 1u)
                std::fill_n(at(x + dx, line + dy), 3, 30);
            }
          }
        }
        x += 8;
      }
    }
  }

  CapturedFrame frame(int index, const std::shared_ptr<const void>& owner) {
    CapturedFrame frame;
    frame.width = width_;
    frame.height = height_;
    frame.bytesPerRow = stride_;
    frame.pixels = at(0, (index * scrollRows) % scrollRange);
    frame.presentationTimeMicroseconds =
        1'000'000 + static_cast<std::uint64_t>(index) * 1'000'000 / framesPerSecond;
    frame.owner = owner;
    return frame;
  }

  // Moves a box across the page between frames, so that not only the scroll changes.
  void moveBox(int index) {
    const int size = height_ / 8;
    const int x = (index * 13) % (width_ - size);
    const int y = (index * 4) % scrollRange + height_ / 2;
    for (int row = y; row < y + size; ++row)
      std::fill_n(at(x, row), size * 4, static_cast<std::uint8_t>(index * 37));
  }

 private:
  std::uint8_t* at(int x, int y) {
    return pixels_.data() + static_cast<std::ptrdiff_t>(y) * stride_ + x * 4;
  }

  int width_;
  int height_;
  int stride_;
  std::vector<std::uint8_t> pixels_;
};

std::int64_t bitrateFor(int height) {
  return height >= 1440 ? 20'000'000 : 12'000'000;
}

void BM_EncodeFrame(benchmark::State& state) {
  const int width = static_cast<int>(state.range(0));
  const int height = static_cast<int>(state.range(1));
  ScrollingPage page(width, height);
  const auto owner = std::make_shared<int>(0);

  std::mutex mutex;
  std::condition_variable arrived;
  std::uint64_t frames = 0;
  std::uint64_t bytes = 0;
  std::uint64_t keyframes = 0;
  VideoEncoder encoder(width, height, framesPerSecond, bitrateFor(height),
                       [&](EncodedVideoFrame frame) {
                         std::lock_guard lock(mutex);
                         ++frames;
                         bytes += frame.data.size();
                         keyframes += frame.header.isKeyframe ? 1 : 0;
                         arrived.notify_one();
                       });
  int index = 0;
  for (auto _ : state) {
    state.PauseTiming();
    page.moveBox(index);
    state.ResumeTiming();
    encoder.encode(page.frame(index, owner));
    std::unique_lock lock(mutex);
    const auto expected = static_cast<std::uint64_t>(++index);
    if (!arrived.wait_for(lock, std::chrono::seconds(10), [&] { return frames >= expected; })) {
      state.SkipWithError("no frame came out");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["fps"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["kB/frame"] =
      static_cast<double>(bytes) / 1000.0 / static_cast<double>(std::max<std::uint64_t>(frames, 1));
  state.counters["keyframes"] = static_cast<double>(keyframes);
  state.SetLabel(encoder.backendName());
}

void BM_ConvertFrame(benchmark::State& state) {
  const int sourceWidth = static_cast<int>(state.range(0));
  const int sourceHeight = static_cast<int>(state.range(1));
  const int width = static_cast<int>(state.range(2));
  const int height = static_cast<int>(state.range(3));
  const int threads = static_cast<int>(state.range(4));
  ScrollingPage page(sourceWidth, sourceHeight);
  const auto owner = std::make_shared<int>(0);
  YUVConverter converter(width, height, YUVConverter::Layout::planar, threads);
  int index = 0;
  for (auto _ : state) {
    if (converter.convert(page.frame(index++, owner)) != 0) {
      state.SkipWithError("conversion failed");
      break;
    }
    benchmark::DoNotOptimize(converter.target());
  }
  state.SetItemsProcessed(state.iterations());
  state.counters["fps"] =
      benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

BENCHMARK(BM_EncodeFrame)
    ->Args({1920, 1080})
    ->Args({2560, 1440})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->MinTime(3.0);
BENCHMARK(BM_ConvertFrame)
    ->ArgNames({"srcW", "srcH", "w", "h", "threads"})
    ->Args({1920, 1080, 1920, 1080, 1})
    ->Args({2560, 1440, 2560, 1440, 1})
    ->Args({2560, 1440, 1920, 1080, 1})
    ->Args({1920, 1080, 1920, 1080, 2})
    ->Args({2560, 1440, 2560, 1440, 2})
    ->Args({2560, 1440, 1920, 1080, 2})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

}  // namespace
