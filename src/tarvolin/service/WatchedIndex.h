#pragma once
// A LiveIndex that follows the file system. A FileSystemWatcher on the index's roots names the
// folders that changed; an IndexUpdater lists them again; the updated records are laid out as an
// index file image in memory and published as the next store, so searches see a change within a
// fraction of a second without the index file being rewritten per event. The file on disk is
// brought up to date at most once per `rewriteInterval` while changes go on (and at stop),
// atomically, so a search without the service sees recent changes too and a kill at any moment
// leaves a whole file. When the deleted records pass `compactionShare`, the next published store
// leaves them out. A content index, when there is one, follows the same folders (see LiveContent)
// and is rewritten on the same terms.
//
// All work (updates, rescans, rewrites) runs on two background threads at idle I/O priority and
// a raised nice value: one applies the watcher's batches, one rewrites the file and builds the
// trigram index and score table of a store that stayed current for `trigramDelay`. Neither wakes up
// while nothing changes, except for a slow rescan of subtrees the watcher could not cover.
//
// `start` and `stop` belong to the owner's thread; everything of LiveIndex to any thread.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tarvolin/platform/SerialQueue.h"
#include "tarvolin/scan/ScanPolicy.h"
#include "tarvolin/service/IndexUpdater.h"
#include "tarvolin/service/LiveContent.h"
#include "tarvolin/service/LiveIndex.h"
#include "tarvolin/watch/FileSystemWatcher.h"

namespace tarvolin {

struct WatchedIndexOptions {
  /// Seconds the watcher gathers events after the first of a burst: under constant change, the
  /// most updates published per second is about its inverse.
  double latency = 0.5;
  /// How long a new store must stay current before its trigram index is built.
  std::chrono::milliseconds trigramDelay = std::chrono::seconds(1);
  /// The least time between two rewrites of the index file.
  std::chrono::milliseconds rewriteInterval = std::chrono::seconds(30);
  /// The share of deleted records above which the next store is compacted.
  double compactionShare = 0.25;
  /// How often subtrees left without watches are listed again.
  std::chrono::milliseconds unwatchedInterval = std::chrono::minutes(10);
  /// The nice value of the background threads.
  int niceness = 10;
  WatchOptions watch;
  /// The content index to keep current with the names (none when empty or missing), and the
  /// folders it was built from.
  std::filesystem::path contentPath;
  std::vector<std::string> contentFolders;
};

class WatchedIndex : public LiveIndex {
 public:
  using Options = WatchedIndexOptions;

  /// Serves `store`, loaded from `indexPath`; nothing is watched until `start`.
  WatchedIndex(std::filesystem::path indexPath, std::shared_ptr<const IndexStore> store,
               ScanPolicy policy, std::string home, Options options = {});
  /// Stops (see `stop`).
  ~WatchedIndex() override;

  /// Watches the roots of the store and starts applying changes. Once only.
  void start();
  /// Stops watching for good, finishes the update under way and writes the index file if it changed
  /// since the last write. Throws nothing; a failed final write is reported by `lastWriteError`.
  void stop();

  ServiceProtocol::StatusAnswer status() const override;

  /// The message of the last failed rewrite, or empty.
  std::string lastWriteError() const;
  /// Number of stores published since start (for tests and figures).
  uint64_t publishedCount() const;

 private:
  void onSignal(const FileSystemWatcherSignal& signal);
  void rescanUnwatched();
  /// Lays `builder` out as a new image in memory and publishes it, compacted when due.
  void publishRecords(IndexBuilder builder);
  void rewriteLoop();
  /// Writes the current store to the index file if it changed since the last write.
  void rewriteIfChanged();

  Options options_;
  IndexUpdater updater_;  // used on work_ only
  std::vector<std::string> roots_;
  std::mutex contentLock_;  // taken by the update of content_ and by its write
  std::unique_ptr<LiveContent> content_;
  // Destroyed in reverse order: the watcher (whose handlers run on work_) before the queue.
  std::unique_ptr<platform::SerialQueue> work_;
  std::unique_ptr<FileSystemWatcher> watcher_;
  std::thread rewriter_;
  bool started_ = false;  // owner's thread only
  bool stopped_ = false;  // owner's thread only

  // Guarded by LiveIndex::lock_.
  bool changedSinceWrite_ = false;
  bool contentChangedSinceWrite_ = false;
  bool stopping_ = false;
  int64_t lastWriteAt_ = 0;
  std::chrono::steady_clock::time_point lastPublishAt_;
  bool trigramsDue_ = false;
  uint64_t deletedEntries_ = 0;
  uint64_t published_ = 0;
  std::string lastWriteError_;
  std::string watchMode_ = "none";
  std::vector<std::string> unwatched_;
  std::condition_variable wake_;  // a change to write, or stopping
};

}  // namespace tarvolin
