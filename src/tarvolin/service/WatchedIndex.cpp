#include "tarvolin/service/WatchedIndex.h"

#include <algorithm>
#include <exception>
#include <system_error>

#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/platform/Memory.h"
#include "tarvolin/platform/ProcessControl.h"

namespace tarvolin {

namespace {

using Clock = std::chrono::steady_clock;

int64_t secondsNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

uint64_t deletedIn(std::span<const FileRecord> records) {
  return static_cast<uint64_t>(std::count_if(records.begin(), records.end(), [](const auto& r) {
    return r.flags.contains(RecordFlags::deleted);
  }));
}

std::shared_ptr<const IndexStore> storeInMemory(const IndexBuilder& builder,
                                                const std::vector<VolumeEntry>& volumes) {
  // The image is checked as a file from disk would be: the records the updater made are held to
  // the same rules as any others.
  return std::make_shared<const IndexStore>(IndexWriter::image(builder, volumes));
}

const char* modeName(WatchBackend backend) {
  return backend == WatchBackend::fanotify ? "fanotify" : "inotify";
}

}  // namespace

WatchedIndex::WatchedIndex(std::filesystem::path indexPath, std::shared_ptr<const IndexStore> store,
                           ScanPolicy policy, std::string home, Options options)
    : LiveIndex(std::move(indexPath), std::move(store)),
      options_(options),
      updater_(std::move(policy), std::move(home)),
      roots_(rootsOf(*current())),
      work_(std::make_unique<platform::SerialQueue>()) {
  deletedEntries_ = deletedIn(current()->records());
}

WatchedIndex::~WatchedIndex() { stop(); }

void WatchedIndex::start() {
  if (started_) return;
  started_ = true;
  int niceness = options_.niceness;
  // Every thread the updates start (the scanner's and the filler's workers) inherits this.
  work_->submit([niceness] { platform::lowerThreadPriority(niceness); });
  if (!options_.contentPath.empty()) {
    content_ = LiveContent::open(options_.contentPath, options_.contentFolders);
  }
  rewriter_ = std::thread([this] { rewriteLoop(); });
  watcher_ = std::make_unique<FileSystemWatcher>(
      roots_, FileSystemWatcher::sinceNow, options_.latency, *work_,
      [this](const FileSystemWatcherSignal& signal) { onSignal(signal); }, options_.watch);
  watcher_->start();
  std::lock_guard guard(lock_);
  watchMode_ = watcher_->isStarted() ? modeName(watcher_->activeBackend()) : "none";
}

void WatchedIndex::stop() {
  if (!started_ || stopped_) return;
  stopped_ = true;
  {
    // From here on the rewriter submits nothing and a rescan under way gives up.
    std::lock_guard guard(lock_);
    stopping_ = true;
    watchMode_ = "none";
  }
  wake_.notify_all();
  watcher_->stop();
  work_->waitUntilIdle();
  rewriter_.join();
  rewriteIfChanged();
}

void WatchedIndex::onSignal(const FileSystemWatcherSignal& signal) {
  std::shared_ptr<const IndexStore> store = current();
  std::optional<IndexBuilder> records;
  switch (signal.kind) {
    case FileSystemWatcherSignal::Kind::changedPaths:
      records = updater_.apply(store, signal.paths, false);
      if (content_) {
        bool changed;
        {
          std::lock_guard guard(contentLock_);
          changed = content_->update(signal.paths);
        }
        if (changed) {
          {
            std::lock_guard guard(lock_);
            contentChangedSinceWrite_ = true;
          }
          wake_.notify_all();
        }
      }
      break;
    case FileSystemWatcherSignal::Kind::mustFullRescan:
      records = updater_.rescan(*store, [this] {
        std::lock_guard guard(lock_);
        return !stopping_;
      });
      break;
    case FileSystemWatcherSignal::Kind::historyDone:
      break;
  }
  if (records) publishRecords(std::move(*records));
  std::vector<std::string> unwatched = watcher_->unwatchedFolders();
  bool wake = false;
  {
    std::lock_guard guard(lock_);
    if (unwatched != unwatched_) {
      wake = unwatched_.empty() && !unwatched.empty();  // the slow rescans start now
      unwatched_ = std::move(unwatched);
    }
  }
  if (wake) wake_.notify_all();
}

void WatchedIndex::rescanUnwatched() {
  std::vector<std::string> folders;
  {
    std::lock_guard guard(lock_);
    folders = unwatched_;
  }
  if (folders.empty()) return;
  std::optional<IndexBuilder> records = updater_.apply(current(), folders, true);
  if (records) publishRecords(std::move(*records));
}

void WatchedIndex::publishRecords(IndexBuilder builder) {
  std::vector<VolumeEntry> volumes = current()->header().volumes;
  uint64_t eventID = watcher_ ? watcher_->lastKnownEventID() : 0;
  for (VolumeEntry& volume : volumes) volume.lastEventID = std::max(volume.lastEventID, eventID);
  std::shared_ptr<const IndexStore> store = storeInMemory(builder, volumes);
  uint64_t deleted = deletedIn(store->records());
  if (store->count() > 0 && static_cast<double>(deleted) >
                                options_.compactionShare * static_cast<double>(store->count())) {
    IndexBuilder compacted = IndexBuilder::compacting(*store);
    store = storeInMemory(compacted, volumes);
    deleted = 0;
  }
  // The records are in the new store now; give their memory back before the next batch.
  builder = IndexBuilder();
  platform::releaseFreeMemory();
  publish(std::move(store));
  {
    std::lock_guard guard(lock_);
    deletedEntries_ = deleted;
    changedSinceWrite_ = true;
    trigramsDue_ = true;
    lastPublishAt_ = Clock::now();
    ++published_;
  }
  wake_.notify_all();
}

void WatchedIndex::rewriteLoop() {
  platform::lowerThreadPriority(options_.niceness);
  Clock::time_point lastWrite = Clock::now() - options_.rewriteInterval;
  Clock::time_point nextUnwatchedRescan = Clock::now() + options_.unwatchedInterval;
  std::unique_lock guard(lock_);
  for (;;) {
    if (stopping_) return;
    Clock::time_point due = Clock::time_point::max();
    if (changedSinceWrite_ || contentChangedSinceWrite_) due = lastWrite + options_.rewriteInterval;
    if (trigramsDue_) due = std::min(due, lastPublishAt_ + options_.trigramDelay);
    if (!unwatched_.empty()) due = std::min(due, nextUnwatchedRescan);
    if (due == Clock::time_point::max()) {
      wake_.wait(guard);  // nothing to do until something changes
      continue;
    }
    if (Clock::now() < due) {
      wake_.wait_until(guard, due);
      continue;
    }
    if (!unwatched_.empty() && Clock::now() >= nextUnwatchedRescan) {
      nextUnwatchedRescan = Clock::now() + options_.unwatchedInterval;
      work_->submit([this] { rescanUnwatched(); });
    }
    if (trigramsDue_ && Clock::now() >= lastPublishAt_ + options_.trigramDelay) {
      trigramsDue_ = false;
      guard.unlock();
      buildSearchTables([this] {
        std::lock_guard check(lock_);
        return stopping_ || trigramsDue_;  // stopping, or a newer store came meanwhile
      });
      guard.lock();
    }
    if ((changedSinceWrite_ || contentChangedSinceWrite_) &&
        Clock::now() >= lastWrite + options_.rewriteInterval) {
      guard.unlock();
      rewriteIfChanged();
      lastWrite = Clock::now();
      guard.lock();
    }
  }
}

void WatchedIndex::rewriteIfChanged() {
  std::shared_ptr<const IndexStore> store;
  bool content;
  {
    std::lock_guard guard(lock_);
    if (changedSinceWrite_) store = store_;
    content = contentChangedSinceWrite_;
    changedSinceWrite_ = false;
    contentChangedSinceWrite_ = false;
  }
  if (!store && !content) return;
  std::string error;
  try {
    if (store) IndexWriter::copy(*store, indexPath());
  } catch (const std::exception& failure) {
    error = failure.what();
  }
  std::string contentError;
  if (content) {
    try {
      std::lock_guard guard(contentLock_);
      content_->writeIfChanged();
    } catch (const std::exception& failure) {
      contentError = failure.what();
    }
  }
  std::lock_guard guard(lock_);
  lastWriteError_ = !error.empty() ? error : contentError;
  if (store && error.empty()) lastWriteAt_ = secondsNow();
  // Try again at the next turn.
  if (!error.empty()) changedSinceWrite_ = true;
  if (!contentError.empty()) contentChangedSinceWrite_ = true;
}

ServiceProtocol::StatusAnswer WatchedIndex::status() const {
  ServiceProtocol::StatusAnswer answer = LiveIndex::status();
  std::lock_guard guard(lock_);
  answer.deletedEntries = deletedEntries_;
  answer.lastWriteAt = lastWriteAt_;
  answer.watchMode = watchMode_;
  answer.unwatched = unwatched_;
  return answer;
}

std::string WatchedIndex::lastWriteError() const {
  std::lock_guard guard(lock_);
  return lastWriteError_;
}

uint64_t WatchedIndex::publishedCount() const {
  std::lock_guard guard(lock_);
  return published_;
}

}  // namespace tarvolin
