// Run by ConcurrencyTest in a process of its own, so that its first parallel loop is the first of
// the process: the pool's helpers start with that loop, and a helper that misses the job posted at
// its start leaves the loop to the calling thread. Each loop here has two bodies that wait for each
// other (with a deadline, so a broken pool fails instead of hanging); they can only both finish
// in time on two threads. Prints one line per check and exits 0 when all passed.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <set>
#include <thread>

#include "tarvolin/platform/Concurrency.h"

namespace {

using tarvolin::platform::concurrentPerform;

// True when both bodies of one loop ran at the same time on two threads.
bool bodiesMeet() {
  std::atomic<int> arrived{0};
  std::atomic<bool> timedOut{false};
  std::mutex lock;
  std::set<std::thread::id> threads;
  concurrentPerform(2, [&](size_t) {
    {
      std::lock_guard guard(lock);
      threads.insert(std::this_thread::get_id());
    }
    arrived.fetch_add(1);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (arrived.load() < 2) {
      if (std::chrono::steady_clock::now() > deadline) {
        timedOut = true;
        return;
      }
      std::this_thread::yield();
    }
  });
  return !timedOut.load() && threads.size() == 2;
}

}  // namespace

int main() {
  if (tarvolin::platform::activeProcessorCount() < 2) {
    std::puts("skip: one processor");
    return 0;
  }
  bool first = bodiesMeet();
  std::printf("first loop on two threads: %s\n", first ? "yes" : "no");
  std::atomic<size_t> total{0};
  for (int loop = 0; loop < 1000; ++loop) {
    concurrentPerform(1 + loop % 7, [&](size_t) { total.fetch_add(1); });
  }
  bool later = bodiesMeet();
  std::printf("loop after 1000 loops on two threads: %s\n", later ? "yes" : "no");
  return first && later ? 0 : 1;
}
