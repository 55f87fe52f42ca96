#include "tarvolin/platform/Concurrency.h"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

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

namespace {

// True on a thread while it runs loop bodies: a loop started there runs on that thread alone.
thread_local bool insideLoop = false;

// One parallel loop: indices are handed out in increasing order to whoever asks next.
struct Job {
  size_t count;
  const std::function<void(size_t)>* body;
  std::atomic<size_t> next{0};
  std::mutex failureLock;
  std::exception_ptr failure;

  void work() {
    try {
      for (size_t i = next.fetch_add(1); i < count; i = next.fetch_add(1)) (*body)(i);
    } catch (...) {
      std::lock_guard guard(failureLock);
      if (!failure) failure = std::current_exception();
      next.store(count);
    }
  }
};

// Helper threads started by the first loop and parked between loops. Starting a thread costs a
// good part of a millisecond on a virtual machine (its stack is fresh memory); a parked thread
// wakes in microseconds, so commands that run many loops (a scan's levels, a benchmark's
// queries) pay the start once. The pool is never destroyed: parked threads end with the process.
// Should a thread fail to start, the loops run on the threads there are.
class Workers {
 public:
  static Workers& shared() {
    static Workers* workers = new Workers(activeProcessorCount() - 1);
    return *workers;
  }

  size_t helperCount() const { return helpers_; }

  // Starts the helpers before the first job is posted. Each helper is handed the generation it
  // was started at, so a job posted before the helper first takes the lock is still new to it.
  void start() {
    std::call_once(started_, [this] {
      uint64_t startedAt;
      {
        std::lock_guard guard(lock_);
        startedAt = generation_;
      }
      try {
        for (size_t t = 0; t < helpers_; ++t)
          std::thread([this, startedAt] { park(startedAt); }).detach();
      } catch (const std::system_error&) {
      }
    });
  }

  // Runs the job on the caller and up to `wanted` helpers. False when another thread's loop
  // holds the pool: the caller then runs the job alone.
  bool run(Job& job, size_t wanted) {
    std::unique_lock<std::mutex> one(running_, std::try_to_lock);
    if (!one.owns_lock()) return false;
    start();
    insideLoop = true;
    {
      std::lock_guard guard(lock_);
      job_ = &job;
      wanted_ = wanted;
      ++generation_;
    }
    wake_.notify_all();
    job.work();
    insideLoop = false;
    std::unique_lock guard(lock_);
    wanted_ = 0;  // helpers that wake only now stay parked
    done_.wait(guard, [this] { return busy_ == 0; });
    job_ = nullptr;
    return true;
  }

 private:
  explicit Workers(size_t helpers) : helpers_(helpers) {}

  void park(uint64_t seen) {
    insideLoop = true;
    std::unique_lock guard(lock_);
    while (true) {
      wake_.wait(guard, [&] { return generation_ != seen; });
      seen = generation_;
      if (wanted_ == 0) continue;
      --wanted_;
      ++busy_;
      Job* job = job_;
      guard.unlock();
      job->work();
      guard.lock();
      if (--busy_ == 0) done_.notify_all();
    }
  }

  const size_t helpers_;
  std::once_flag started_;
  std::mutex running_;  // one loop at a time
  std::mutex lock_;
  std::condition_variable wake_, done_;
  uint64_t generation_ = 0;
  Job* job_ = nullptr;
  size_t wanted_ = 0;
  size_t busy_ = 0;
};

}  // namespace

void concurrentPerform(size_t count, const std::function<void(size_t)>& body) {
  if (count == 0) return;
  Job job{count, &body};
  size_t helpers = std::min(count - 1, Workers::shared().helperCount());
  if (helpers == 0 || insideLoop || !Workers::shared().run(job, helpers)) job.work();
  if (job.failure) std::rethrow_exception(job.failure);
}

}  // namespace tarvolin::platform
