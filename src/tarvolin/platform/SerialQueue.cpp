#include "tarvolin/platform/SerialQueue.h"

#include <utility>

#include "tarvolin/platform/Precondition.h"

namespace tarvolin::platform {

SerialQueue::SerialQueue(FailureHandler onFailure)
    : onFailure_(std::move(onFailure)), thread_([this] { run(); }) {}

SerialQueue::~SerialQueue() {
  TARVOLIN_PRECONDITION(!isCurrent());
  {
    std::lock_guard guard(lock_);
    stopping_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

SerialQueue& SerialQueue::background() {
  // Never destroyed: destroying it at exit would wait for a long search that nobody awaits.
  static SerialQueue* queue = new SerialQueue();
  return *queue;
}

void SerialQueue::submit(Task task) {
  {
    std::lock_guard guard(lock_);
    tasks_.push_back(std::move(task));
  }
  wake_.notify_one();
}

void SerialQueue::waitUntilIdle() {
  TARVOLIN_PRECONDITION(!isCurrent());
  std::unique_lock guard(lock_);
  idle_.wait(guard, [this] { return tasks_.empty() && !running_; });
}

uint64_t SerialQueue::failureCount() const {
  std::lock_guard guard(lock_);
  return failures_;
}

void SerialQueue::run() {
  std::unique_lock guard(lock_);
  while (true) {
    wake_.wait(guard, [this] { return !tasks_.empty() || stopping_; });
    if (tasks_.empty()) return;  // stopping, and drained
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    running_ = true;
    guard.unlock();
    std::exception_ptr failure;
    try {
      task();
    } catch (...) {
      failure = std::current_exception();
    }
    // The task's captures go before the lock is taken again: their destructors may submit.
    task = nullptr;
    if (failure && onFailure_) {
      try {
        onFailure_(failure);
      } catch (...) {
        // A failing handler must not end the queue either.
      }
    }
    guard.lock();
    if (failure) ++failures_;
    running_ = false;
    if (tasks_.empty()) idle_.notify_all();
  }
}

}  // namespace tarvolin::platform
