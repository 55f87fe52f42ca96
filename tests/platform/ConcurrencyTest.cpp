#include "tarvolin/platform/Concurrency.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <vector>

namespace tarvolin::platform {
namespace {

// Each call hands out every index exactly once, call after call on the same parked threads.
TEST(ConcurrentPerformTest, EveryIndexOnceInEveryCall) {
  for (size_t count : {0u, 1u, 2u, 3u, 1000u}) {
    for (int round = 0; round < 50; ++round) {
      std::vector<std::atomic<int>> seen(count);
      concurrentPerform(count, [&](size_t i) { seen[i].fetch_add(1); });
      for (size_t i = 0; i < count; ++i) ASSERT_EQ(seen[i].load(), 1) << count << " " << i;
    }
  }
}

TEST(ConcurrentPerformTest, AFailureReachesTheCallerAndLeavesThePoolUsable) {
  std::atomic<size_t> ran{0};
  EXPECT_THROW(concurrentPerform(100,
                                 [&](size_t i) {
                                   ran.fetch_add(1);
                                   if (i == 10) throw std::runtime_error("shard failed");
                                 }),
               std::runtime_error);
  EXPECT_LE(ran.load(), 100u);
  std::atomic<size_t> after{0};
  concurrentPerform(64, [&](size_t) { after.fetch_add(1); });
  EXPECT_EQ(after.load(), 64u);
}

// A loop started from inside a loop body runs on its caller rather than waiting for the pool.
TEST(ConcurrentPerformTest, NestedCallsFinish) {
  std::atomic<size_t> inner{0};
  concurrentPerform(8, [&](size_t) { concurrentPerform(16, [&](size_t) { inner.fetch_add(1); }); });
  EXPECT_EQ(inner.load(), 8u * 16u);
}

}  // namespace
}  // namespace tarvolin::platform
