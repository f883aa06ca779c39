// Waits for what other threads or processes bring about.
#pragma once

#include <chrono>
#include <thread>

namespace kandb::testing {

// False when the condition does not come true.
template <class Condition>
bool Eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(100));
  }
  return true;
}

}  // namespace kandb::testing
