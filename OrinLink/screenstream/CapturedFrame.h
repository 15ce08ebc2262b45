#pragma once

#include <cstdint>
#include <memory>

namespace orin::screen {

// One captured BGRA image (8 bits per channel, blue first in memory; the fourth byte is
// ignored). The pixels stay valid for as long as `owner` lives, so a frame crosses from the
// capture thread to the encoder's without being copied.
struct CapturedFrame {
  int width = 0;
  int height = 0;
  int bytesPerRow = 0;
  const std::uint8_t* pixels = nullptr;
  // CLOCK_MONOTONIC at the moment of the grab, so a receiver on this machine can measure delay.
  std::uint64_t presentationTimeMicroseconds = 0;
  std::shared_ptr<const void> owner;
};

// CLOCK_MONOTONIC in microseconds: the clock of frame times on this host.
std::uint64_t monotonicMicroseconds();

}  // namespace orin::screen
