#pragma once
// Bounded polling for tests that wait on another thread or process: never a fixed sleep.

#include <chrono>
#include <thread>

namespace tarvolin::testing {

/// Asks `condition` every `interval` until it holds (true) or `timeout` has passed (false).
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(20),
                std::chrono::milliseconds interval = std::chrono::milliseconds(10)) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(interval);
  }
  return true;
}

}  // namespace tarvolin::testing
