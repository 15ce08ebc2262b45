#include "OrinLink/screenstream/CapturedFrame.h"

#include <ctime>

namespace orin::screen {

std::uint64_t monotonicMicroseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000u +
         static_cast<std::uint64_t>(now.tv_nsec) / 1'000u;
}

}  // namespace orin::screen
