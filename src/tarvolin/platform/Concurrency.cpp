#include "tarvolin/platform/Concurrency.h"

#include <sched.h>

#include <atomic>
#include <exception>
#include <mutex>
#include <thread>
#include <vector>

namespace tarvolin::platform {

size_t activeProcessorCount() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof(set), &set) == 0) {
    int count = CPU_COUNT(&set);
    if (count > 0) return static_cast<size_t>(count);
  }
  unsigned hardware = std::thread::hardware_concurrency();
  return hardware > 0 ? hardware : 1;
}

void concurrentPerform(size_t count, const std::function<void(size_t)>& body) {
  if (count == 0) return;
  size_t threads = std::min(count, activeProcessorCount());
  if (threads <= 1) {
    for (size_t i = 0; i < count; ++i) body(i);
    return;
  }
  std::atomic<size_t> next{0};
  std::exception_ptr failure;
  std::mutex failureLock;
  auto worker = [&] {
    try {
      for (size_t i = next.fetch_add(1); i < count; i = next.fetch_add(1)) body(i);
    } catch (...) {
      std::lock_guard guard(failureLock);
      if (!failure) failure = std::current_exception();
      next.store(count);
    }
  };
  std::vector<std::thread> pool;
  pool.reserve(threads - 1);
  for (size_t t = 1; t < threads; ++t) pool.emplace_back(worker);
  worker();
  for (auto& thread : pool) thread.join();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace tarvolin::platform
