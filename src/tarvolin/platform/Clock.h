#pragma once
// The monotonic clock used for every duration the tool reports.

#include <chrono>
#include <cstdint>

namespace tarvolin::platform {

/// Nanoseconds of the monotonic clock (CLOCK_MONOTONIC); only differences are meaningful.
inline uint64_t monotonicNanoseconds() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::steady_clock::now().time_since_epoch())
                                   .count());
}

/// Seconds of the monotonic clock as a double.
inline double monotonicSeconds() { return static_cast<double>(monotonicNanoseconds()) / 1e9; }

}  // namespace tarvolin::platform
