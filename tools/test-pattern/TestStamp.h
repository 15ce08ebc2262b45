#pragma once

// The time stamp the test pattern draws into every frame, and the reader that gets it back from a
// captured or decoded picture, so a receiver on the same host can measure how old a frame is.
//
// Two rows of 64 square cells at the top-left corner of each display, white for 1 and black for
// 0, most significant bit first: row 0 holds the CLOCK_MONOTONIC time in microseconds, row 1 the
// frame counter and a check word. Cells of 16 pixels survive scaling and lossy coding; the check
// word rejects a picture whose stamp is torn or unreadable.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace orin::teststamp {

inline constexpr int columns = 64;
inline constexpr int rows = 2;
inline constexpr int defaultCellSize = 16;

struct Stamp {
  std::uint64_t timeMicroseconds = 0;
  std::uint32_t frameCounter = 0;
  bool operator==(const Stamp&) const = default;
};

enum class PixelFormat { bgra, luma };

inline std::uint32_t checkWord(const Stamp& stamp) {
  std::uint64_t mixed = stamp.timeMicroseconds ^ (std::uint64_t{stamp.frameCounter} << 17);
  mixed *= 0x9E3779B97F4A7C15ull;
  return static_cast<std::uint32_t>(mixed >> 32) ^ 0x5A5AA5A5u;
}

// Cell (column, row) is white when bits[row * columns + column] is set.
inline std::array<bool, columns * rows> stampBits(const Stamp& stamp) {
  std::array<bool, columns * rows> bits{};
  for (std::size_t i = 0; i < 64; ++i)
    bits[i] = (stamp.timeMicroseconds >> (63 - i)) & 1;
  for (std::size_t i = 0; i < 32; ++i)
    bits[64 + i] = (stamp.frameCounter >> (31 - i)) & 1;
  std::uint32_t check = checkWord(stamp);
  for (std::size_t i = 0; i < 32; ++i)
    bits[96 + i] = (check >> (31 - i)) & 1;
  return bits;
}

// Reads the stamp whose top-left corner is at (originX, originY), with cells of `cellSize`
// pixels of this picture (16 times the scale when the picture was resized). Each cell is judged
// by the mean brightness of its middle half. Nothing when the stamp does not fit or its check
// word does not match.
inline std::optional<Stamp> readStampedTime(const std::uint8_t* pixels, PixelFormat format,
                                            int width, int height, int bytesPerRow,
                                            double cellSize = defaultCellSize, int originX = 0,
                                            int originY = 0) {
  if (cellSize < 2 || originX < 0 || originY < 0 || originX + cellSize * columns > width ||
      originY + cellSize * rows > height) {
    return std::nullopt;
  }
  int bytesPerPixel = format == PixelFormat::bgra ? 4 : 1;
  auto brightness = [&](int x, int y) -> unsigned {
    const std::uint8_t* p = pixels + static_cast<std::ptrdiff_t>(y) * bytesPerRow +
                            static_cast<std::ptrdiff_t>(x) * bytesPerPixel;
    if (format == PixelFormat::luma) return p[0];
    return (29u * p[0] + 150u * p[1] + 77u * p[2]) >> 8;
  };
  std::array<bool, columns * rows> bits{};
  for (int row = 0; row < rows; ++row) {
    for (int column = 0; column < columns; ++column) {
      int x0 = originX + static_cast<int>(cellSize * (column + 0.25));
      int x1 = originX + static_cast<int>(cellSize * (column + 0.75));
      int y0 = originY + static_cast<int>(cellSize * (row + 0.25));
      int y1 = originY + static_cast<int>(cellSize * (row + 0.75));
      unsigned sum = 0;
      unsigned count = 0;
      for (int y = y0; y <= y1; ++y) {
        for (int x = x0; x <= x1; ++x) {
          sum += brightness(x, y);
          ++count;
        }
      }
      bits[static_cast<std::size_t>(row * columns + column)] = sum >= 128 * count;
    }
  }
  Stamp stamp;
  for (std::size_t i = 0; i < 64; ++i) {
    stamp.timeMicroseconds = (stamp.timeMicroseconds << 1) | std::uint64_t{bits[i]};
  }
  for (std::size_t i = 0; i < 32; ++i) {
    stamp.frameCounter = (stamp.frameCounter << 1) | std::uint32_t{bits[64 + i]};
  }
  std::uint32_t check = 0;
  for (std::size_t i = 0; i < 32; ++i)
    check = (check << 1) | std::uint32_t{bits[96 + i]};
  if (check != checkWord(stamp)) return std::nullopt;
  return stamp;
}

}  // namespace orin::teststamp
