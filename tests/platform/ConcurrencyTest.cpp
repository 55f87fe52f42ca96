#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <vector>

#include "support/RunTool.h"
#include "tarvolin/platform/Concurrency.h"

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
  // Indices are handed out in increasing order and a failure stops the handing out: the threads
  // that already hold an index finish it, but no index far past the failing one is started.
  std::atomic<size_t> ran{0};
  std::atomic<size_t> highest{0};
  EXPECT_THROW(concurrentPerform(1000000,
                                 [&](size_t i) {
                                   ran.fetch_add(1);
                                   size_t seen = highest.load();
                                   while (i > seen && !highest.compare_exchange_weak(seen, i)) {
                                   }
                                   if (i == 10) throw std::runtime_error("shard failed");
                                 }),
               std::runtime_error);
  EXPECT_GE(ran.load(), 11u);
  EXPECT_LT(highest.load(), 500000u);
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

// The first loop of a fresh process, and a loop after a thousand others, run their bodies on two
// threads at once when there are two processors (a helper must not miss the job posted as it
// starts). Run in a process of its own so that its first loop is the process's first.
TEST(ConcurrentPerformTest, FirstLoopOfAProcessRunsOnTwoThreads) {
  if (activeProcessorCount() < 2) GTEST_SKIP() << "one processor";
  testing::ToolResult result = testing::runProgram(POOL_PROBE_PATH, {});
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  EXPECT_EQ(result.out,
            "first loop on two threads: yes\n"
            "loop after 1000 loops on two threads: yes\n");
}

}  // namespace
}  // namespace tarvolin::platform
