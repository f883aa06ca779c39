// Waits for a condition that other threads or processes make true.
#pragma once

#include <chrono>
#include <thread>

namespace kandb::testing {

// False when it is still not true after a minute.
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
