#pragma once

#include <cstdint>

namespace orin::screen {

// Planar YUV 4:2:0 destination: luma at full size, each chroma plane at half size both ways.
struct I420Planes {
  std::uint8_t* y = nullptr;
  std::uint8_t* u = nullptr;
  std::uint8_t* v = nullptr;
  int yStride = 0;
  int uStride = 0;
  int vStride = 0;
};

// BGRA (full-range sRGB, fourth byte ignored) to BT.709 limited-range 4:2:0 at the same size,
// each chroma sample the mean of its 2x2 block. Several times faster than the general scaler,
// and a screen stream converts every frame on the way to the encoder. `width` and `height` must
// be even.
void convertBGRAToI420(const std::uint8_t* source, int sourceStride, int width, int height,
                       const I420Planes& target);

}  // namespace orin::screen
