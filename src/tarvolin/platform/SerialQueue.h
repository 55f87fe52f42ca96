#pragma once
// A serial queue: one thread of its own that runs submitted tasks one at a time, in the order they
// were submitted. The watcher delivers its event batches on one, and the background content
// search runs on the process-wide one, so an owner gets its callbacks in order and never on two
// threads at once.
//
// Any thread may submit, including a task running on the queue (the new task runs after the
// tasks already waiting). A task that throws is reported to the failure handler, if one was given,
// and the queue goes on with the next task. Destroying the queue drains it: every task submitted
// before the destructor returns has run (tasks that running tasks submit included), then the
// thread is joined.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>

namespace tarvolin::platform {

class SerialQueue {
 public:
  using Task = std::function<void()>;
  /// Called on the queue's thread with the exception a task let escape.
  using FailureHandler = std::function<void(std::exception_ptr)>;

  /// Starts the queue's thread. Throws std::system_error when no thread can be started.
  explicit SerialQueue(FailureHandler onFailure = {});
  /// Runs every task still waiting, then ends the thread.
  /// REQUIRES: not called from a task of this queue (the thread cannot join itself).
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// The process-wide queue for background work. It is created on first use and never
  /// destroyed: tasks still waiting when the process exits do not run.
  static SerialQueue& background();

  /// Queues `task` to run after every task submitted before it. Returns at once.
  void submit(Task task);

  /// Blocks until every task submitted before the call has run.
  /// REQUIRES: not called from a task of this queue (it would wait for itself).
  void waitUntilIdle();

  /// True on the queue's own thread, that is inside one of its tasks.
  bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }

  /// Number of tasks that threw, for diagnostics.
  uint64_t failureCount() const;

 private:
  void run();

  FailureHandler onFailure_;
  mutable std::mutex lock_;
  std::condition_variable wake_;  // a task was queued, or the queue is stopping
  std::condition_variable idle_;  // the queue ran out of tasks
  std::deque<Task> tasks_;
  bool running_ = false;  // a task is being run outside the lock
  bool stopping_ = false;
  uint64_t failures_ = 0;
  std::thread thread_;  // last: started once everything above is ready
};

}  // namespace tarvolin::platform
