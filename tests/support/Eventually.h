#pragma once

#include <chrono>
#include <thread>

namespace orin::testing_support {

// Polls `condition` until it holds; false when it still does not once `limit` has passed.
template <typename Condition>
bool eventually(Condition condition,
                std::chrono::steady_clock::duration limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace orin::testing_support
