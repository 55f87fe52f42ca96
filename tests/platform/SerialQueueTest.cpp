#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tarvolin/platform/SerialQueue.h"

namespace tarvolin::platform {
namespace {

// Tasks from several submitting threads each keep their own order, and never overlap.
TEST(SerialQueueTest, RunsTasksOneAtATimeInSubmissionOrder) {
  constexpr int perThread = 500;
  std::vector<std::vector<int>> seen(3);
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  {
    SerialQueue queue;
    std::vector<std::thread> submitters;
    for (int t = 0; t < 3; ++t) {
      submitters.emplace_back([&, t] {
        for (int i = 0; i < perThread; ++i) {
          queue.submit([&, t, i] {
            if (inside.fetch_add(1) != 0) overlapped = true;
            seen[t].push_back(i);  // only the queue's thread touches the lists
            inside.fetch_sub(1);
          });
        }
      });
    }
    for (auto& submitter : submitters) submitter.join();
    queue.waitUntilIdle();
  }
  EXPECT_FALSE(overlapped.load());
  for (const auto& list : seen) {
    ASSERT_EQ(list.size(), static_cast<size_t>(perThread));
    for (int i = 0; i < perThread; ++i) ASSERT_EQ(list[i], i);
  }
}

// A task submitted from a task runs after the tasks already waiting, on the same thread.
TEST(SerialQueueTest, TaskSubmittedFromATaskRunsAfterThoseWaiting) {
  SerialQueue queue;
  std::vector<std::string> order;
  std::thread::id first, nested;
  std::promise<void> gate;
  std::shared_future<void> open = gate.get_future().share();
  queue.submit([&] {
    open.wait();  // hold the queue until "b" is waiting
    first = std::this_thread::get_id();
    EXPECT_TRUE(queue.isCurrent());
    order.push_back("a");
    queue.submit([&] {
      nested = std::this_thread::get_id();
      order.push_back("a.1");
    });
  });
  queue.submit([&] { order.push_back("b"); });
  EXPECT_FALSE(queue.isCurrent());
  gate.set_value();
  queue.waitUntilIdle();
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "a.1"}));
  EXPECT_EQ(first, nested);
  EXPECT_NE(first, std::this_thread::get_id());
}

// The destructor runs what is waiting, including what those tasks submit while it drains.
TEST(SerialQueueTest, DestructionDrainsEveryWaitingTask) {
  std::atomic<int> ran{0};
  {
    SerialQueue queue;
    queue.submit([] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); });
    for (int i = 0; i < 100; ++i) queue.submit([&] { ran.fetch_add(1); });
    queue.submit([&] { queue.submit([&] { ran.fetch_add(1000); }); });
  }
  EXPECT_EQ(ran.load(), 1100);
}

// A throwing task is handed to the failure handler; the tasks after it still run.
TEST(SerialQueueTest, AThrowingTaskDoesNotStopTheQueue) {
  std::mutex messagesLock;
  std::vector<std::string> messages;
  std::atomic<int> ran{0};
  SerialQueue queue([&](std::exception_ptr failure) {
    try {
      std::rethrow_exception(failure);
    } catch (const std::exception& e) {
      std::lock_guard guard(messagesLock);
      messages.push_back(e.what());
    }
    throw std::logic_error("the handler fails too");  // must not end the queue either
  });
  queue.submit([] { throw std::runtime_error("first"); });
  queue.submit([&] { ran.fetch_add(1); });
  queue.submit([] { throw 42; });  // not a std::exception: the handler lets it through
  queue.submit([&] { ran.fetch_add(1); });
  queue.waitUntilIdle();
  EXPECT_EQ(ran.load(), 2);
  EXPECT_EQ(queue.failureCount(), 2u);
  std::lock_guard guard(messagesLock);
  EXPECT_EQ(messages, (std::vector<std::string>{"first"}));
}

TEST(SerialQueueTest, AThrowingTaskWithoutHandlerIsCountedAndSkipped) {
  SerialQueue queue;
  std::atomic<int> ran{0};
  queue.submit([] { throw std::runtime_error("lost"); });
  queue.submit([&] { ran.fetch_add(1); });
  queue.waitUntilIdle();
  EXPECT_EQ(ran.load(), 1);
  EXPECT_EQ(queue.failureCount(), 1u);
}

// The shared queue is one object, and it runs work off the caller's thread.
TEST(SerialQueueTest, BackgroundQueueIsSharedAndRunsElsewhere) {
  SerialQueue& queue = SerialQueue::background();
  EXPECT_EQ(&queue, &SerialQueue::background());
  std::promise<std::thread::id> where;
  queue.submit([&] { where.set_value(std::this_thread::get_id()); });
  EXPECT_NE(where.get_future().get(), std::this_thread::get_id());
}

}  // namespace
}  // namespace tarvolin::platform
