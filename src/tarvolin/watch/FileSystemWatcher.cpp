#include "tarvolin/watch/FileSystemWatcher.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <utility>

#include "tarvolin/platform/BlockDevices.h"
#include "tarvolin/platform/Wakeup.h"
#include "tarvolin/watch/detail/EventSource.h"
#include "tarvolin/watch/detail/FanotifySource.h"
#include "tarvolin/watch/detail/InotifySource.h"
#include "tarvolin/watch/detail/UnwatchedFolders.h"

namespace tarvolin {

namespace watch_detail {

// What the queued deliveries share with the watcher. A delivery holds it by shared pointer, so
// one still queued when the watcher is destroyed finds a newer generation and does nothing.
struct Delivery {
  FileSystemWatcher::SignalHandler onSignal;

  std::mutex lock;
  std::condition_variable handlerDone;
  uint64_t generation = 0;  // raised by stop: deliveries of older generations are dropped
  bool inHandler = false;
  std::thread::id handlerThread;

  mutable std::mutex lastEventIDLock;
  uint64_t lastKnownEventID = 0;

  void run(uint64_t batchGeneration, uint64_t eventID,
           const std::vector<FileSystemWatcherSignal>& signals) {
    {
      std::lock_guard guard(lock);
      if (batchGeneration != generation) return;
      inHandler = true;
      handlerThread = std::this_thread::get_id();
    }
    {
      std::lock_guard guard(lastEventIDLock);
      lastKnownEventID = std::max(lastKnownEventID, eventID);
    }
    for (const FileSystemWatcherSignal& signal : signals) {
      {
        std::lock_guard guard(lock);  // the handler may have stopped the watcher itself
        if (batchGeneration != generation) break;
      }
      onSignal(signal);
    }
    std::lock_guard guard(lock);
    inHandler = false;
    handlerDone.notify_all();
  }
};

}  // namespace watch_detail

namespace {

std::string normalRoot(const std::string& path) {
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(path, error);
  if (error) absolute = path;
  std::string normal = absolute.lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/') normal.pop_back();
  return normal;
}

uint64_t realtimeNanoseconds() {
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                   std::chrono::system_clock::now().time_since_epoch())
                                   .count());
}

}  // namespace

FileSystemWatcher::FileSystemWatcher(std::vector<std::string> paths, uint64_t sinceEventID,
                                     double latency, platform::SerialQueue& queue,
                                     SignalHandler onSignal, Options options)
    : sinceEventID_(sinceEventID),
      latency_(std::isfinite(latency) ? std::max(latency, 0.0) : 0.0),
      queue_(queue),
      options_(options),
      delivery_(std::make_shared<watch_detail::Delivery>()),
      unwatched_(std::make_unique<watch_detail::UnwatchedFolders>()) {
  for (const std::string& path : paths) paths_.push_back(normalRoot(path));
  delivery_->onSignal = std::move(onSignal);
}

FileSystemWatcher::~FileSystemWatcher() { stop(); }

void FileSystemWatcher::start() {
  if (source_) return;
  auto initial = std::make_unique<watch_detail::PendingBatch>();
  std::unique_ptr<watch_detail::EventSource> source;
  unwatched_->clear();
  try {
    if (options_.backend == Backend::fanotify) source = watch_detail::FanotifySource::open(paths_);
    if (source) {
      activeBackend_ = Backend::fanotify;
    } else {
      source = std::make_unique<watch_detail::InotifySource>(paths_, options_.watchCap, *initial,
                                                             *unwatched_);
      activeBackend_ = Backend::inotify;
    }
    stopRequest_ = std::make_unique<platform::Wakeup>();
  } catch (const std::system_error&) {
    return;  // no kernel interface (the instance limit, say): stays stopped
  }
  if (sinceEventID_ != sinceNow) {
    // The kernel keeps no history to replay: whatever happened since then is unknown.
    initial->mustFullRescan = true;
    initial->historyDone = true;
  }
  source_ = std::move(source);
  initial_ = std::move(initial);
  reader_ = std::thread([this] { run(); });
}

void FileSystemWatcher::stop() {
  if (!source_) return;
  stopRequest_->raise();
  reader_.join();
  source_.reset();
  unwatched_->clear();
  stopRequest_.reset();
  initial_.reset();
  std::unique_lock guard(delivery_->lock);
  ++delivery_->generation;
  // A handler running on the queue finishes first, unless it is the one stopping us.
  delivery_->handlerDone.wait(guard, [&] {
    return !delivery_->inHandler || delivery_->handlerThread == std::this_thread::get_id();
  });
}

uint64_t FileSystemWatcher::lastKnownEventID() const {
  std::lock_guard guard(delivery_->lastEventIDLock);
  return delivery_->lastKnownEventID;
}

std::vector<std::string> FileSystemWatcher::unwatchedFolders() const { return unwatched_->list(); }

uint64_t FileSystemWatcher::currentEventID() { return realtimeNanoseconds(); }

std::optional<std::string> FileSystemWatcher::deviceUUID(const std::string& path) {
  return platform::fileSystemUUID(path);
}

void FileSystemWatcher::deliver(watch_detail::PendingBatch& batch) {
  std::vector<FileSystemWatcherSignal> signals;
  if (!batch.paths.empty()) {
    signals.push_back(FileSystemWatcherSignal::changedPaths(std::move(batch.paths)));
  }
  if (batch.mustFullRescan) signals.push_back(FileSystemWatcherSignal::mustFullRescan());
  if (batch.historyDone) signals.push_back(FileSystemWatcherSignal::historyDone());
  batch.clear();
  if (signals.empty()) return;
  lastIssuedEventID_ = std::max(lastIssuedEventID_, realtimeNanoseconds());
  uint64_t generation;
  {
    std::lock_guard guard(delivery_->lock);
    generation = delivery_->generation;
  }
  queue_.submit([delivery = delivery_, generation, eventID = lastIssuedEventID_,
                 signals = std::move(signals)] { delivery->run(generation, eventID, signals); });
}

void FileSystemWatcher::run() {
  using Clock = std::chrono::steady_clock;
  const auto latency =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(latency_));
  watch_detail::PendingBatch& batch = *initial_;
  Clock::time_point lastDelivery = Clock::now() - latency;
  bool gathering = false;  // events wait for lastDelivery + latency
  try {
    for (;;) {
      Clock::time_point now = Clock::now();
      if (!batch.empty() && !gathering) {
        if (now - lastDelivery >= latency) {
          deliver(batch);  // the first events after a quiet period go at once
          lastDelivery = now;
        } else {
          gathering = true;
        }
      }
      if (gathering && now >= lastDelivery + latency) {
        deliver(batch);
        lastDelivery = now;
        gathering = false;
      }
      int timeoutMs = -1;
      if (gathering) {
        auto left = lastDelivery + latency - now;
        timeoutMs = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
      }
      auto ready = stopRequest_->waitForEither(source_->fd(), timeoutMs);
      if (ready == platform::Wakeup::Ready::wakeup) return;
      if (ready == platform::Wakeup::Ready::source) source_->drain(batch);
    }
  } catch (const std::system_error&) {
    // The kernel interface failed: nothing more can be known. Say so and stop reading.
    batch.mustFullRescan = true;
    deliver(batch);
  }
}

}  // namespace tarvolin
