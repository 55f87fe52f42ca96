#pragma once
// Keeps an index current between scans: watches every folder below a set of roots and tells its
// owner, batch by batch, which folders changed, when everything must be rescanned, and when a
// requested replay of the past is done. Signals are delivered on a serial queue the owner
// chooses, so the owner's handler never runs on two threads at once.
//
// Which folders a signal names: for every entry made, removed, renamed, written or touched, the
// folder that holds it (its listing changed); for a folder that appears (made, or moved in from
// outside the roots), that folder and every folder inside it as well, since entries made in it
// before it was watched have no events of their own. An owner that lists each named folder again,
// marks entries no longer there deleted and scans new subfolders whole loses nothing. A folder
// renamed inside the roots names both parents; paths below it are reported under the new name
// from then on. Each folder appears once per batch, in the order of its first event.
//
// When nothing may be trusted any more, `mustFullRescan` comes: the kernel's event queue
// overflowed, a root is missing, deleted, moved or unmounted (that root's path comes in
// `changedPaths` too), or the first folder could not be watched (the per-user watch limit or the
// watch cap reached, an unreadable folder). Every folder that cannot be watched goes into
// `unwatchedFolders`; only the first (the list was empty) asks for a rescan, since asking again
// for each would not end while the limit holds. The owner rescans the listed folders on a slow
// timer of its own while the list is not empty (a new folder that could not be watched is still
// new in its parent's batch, so its contents of that moment are covered by the parent's listing).
// Event ids are wall-clock nanoseconds (CLOCK_REALTIME) taken when a batch is read, never lower
// than an id given before by this watcher. The kernel keeps no history: a start from any id but
// `sinceNow` delivers `mustFullRescan` then `historyDone` first.
//
// Batching: with latency 0 every read of the kernel's queue is one batch. Otherwise the first
// events after a quiet period (no delivery in the last `latency` seconds) are delivered at once,
// and later ones are gathered until `latency` seconds after the previous delivery.
//
// Threads: `start`, `stop` and the destructor are called from one owner thread (or from the
// handler itself, on the queue); `lastKnownEventID` and `unwatchedFolders` from any thread. One
// reader thread per started watcher waits on the kernel and builds the batches; the handler runs on
// `queue`. Once `stop` returns, no handler call is running (unless `stop` was called from it) and
// none will start.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tarvolin/platform/SerialQueue.h"
#include "tarvolin/watch/FileSystemWatcherSignal.h"

namespace tarvolin {

namespace watch_detail {
class EventSource;
class UnwatchedFolders;
struct Delivery;
struct PendingBatch;
}  // namespace watch_detail

namespace platform {
class Wakeup;
}

/// The kernel interface that delivers the events.
enum class WatchBackend {
  /// inotify. It sees only the watched folders, where fanotify reads every event of the whole
  /// file system and looks up the folder of each (on a disk where folders come and go elsewhere
  /// that costs the reader several times the CPU), and it needs no privilege. An owner that
  /// has CAP_SYS_ADMIN and a tree past the watch limit, or that starts often on a large tree
  /// (one mark instead of a walk), asks for fanotify.
  automatic,
  /// One inotify watch per folder.
  inotify,
  /// One fanotify mark per file system (needs CAP_SYS_ADMIN); falls back to inotify when
  /// the mark cannot be made.
  fanotify,
};

struct WatchOptions {
  WatchBackend backend = WatchBackend::automatic;
  /// The most inotify watches this watcher may hold; past it, `mustFullRescan`. The kernel's
  /// per-user limit (fs.inotify.max_user_watches) applies as well.
  size_t watchCap = SIZE_MAX;
};

class FileSystemWatcher {
 public:
  using SignalHandler = std::function<void(const FileSystemWatcherSignal&)>;

  /// The start id for live events only.
  static constexpr uint64_t sinceNow = UINT64_MAX;

  using Backend = WatchBackend;
  using Options = WatchOptions;

  /// Stores the arguments; nothing is watched until `start`. `paths` are made absolute and
  /// normal. `queue` must outlive the watcher. `latency` is in seconds (negative counts as 0).
  FileSystemWatcher(std::vector<std::string> paths, uint64_t sinceEventID, double latency,
                    platform::SerialQueue& queue, SignalHandler onSignal, Options options = {});
  /// Stops the watcher.
  ~FileSystemWatcher();
  FileSystemWatcher(const FileSystemWatcher&) = delete;
  FileSystemWatcher& operator=(const FileSystemWatcher&) = delete;

  /// Watches the roots and starts delivering; does nothing when started. Every folder present
  /// when it returns is watched (with inotify a large tree takes a while, about 6-10 µs a folder
  /// with the folders in the page cache; fanotify's one mark takes well under a millisecond).
  /// When the kernel interface cannot be opened at all, the watcher stays stopped and
  /// nothing is signalled (see `isStarted`). Restarting after `stop` starts again from the
  /// `sinceEventID` given at construction.
  void start();
  /// Stops watching and discards events not yet delivered; does nothing when stopped.
  void stop();
  bool isStarted() const { return source_ != nullptr; }
  /// The kernel interface `start` chose (meaningful while started).
  Backend activeBackend() const { return activeBackend_; }

  /// The id of the newest batch delivered; 0 before the first.
  uint64_t lastKnownEventID() const;

  /// The top folders of the subtrees left without watches since `start` (the folder whose watch
  /// failed, the folders its walk had still to watch, a folder that could not be listed), sorted,
  /// none twice and none below another: rescanning each of them whole covers everything this
  /// watcher does not see. Entries follow renames seen in watched parents and go when their
  /// folder is deleted or moved away; nothing is ever watched again until a restart. Empty when
  /// stopped, and always with fanotify (one mark covers everything).
  std::vector<std::string> unwatchedFolders() const;

  /// Now, in event-id units (CLOCK_REALTIME nanoseconds). An owner notes it before a full scan.
  static uint64_t currentEventID();
  /// The UUID of the file system holding `path`, or nothing when `path` cannot be stat'ed or
  /// the file system has none. An owner compares it with the one it stored beside an event id.
  static std::optional<std::string> deviceUUID(const std::string& path);

 private:
  void run();
  /// Hands the batch to the queue and empties it.
  void deliver(watch_detail::PendingBatch& batch);

  std::vector<std::string> paths_;
  uint64_t sinceEventID_;
  double latency_;
  platform::SerialQueue& queue_;
  Options options_;
  std::shared_ptr<watch_detail::Delivery> delivery_;
  std::unique_ptr<watch_detail::UnwatchedFolders> unwatched_;  // filled by the reader thread
  Backend activeBackend_ = Backend::inotify;
  uint64_t lastIssuedEventID_ = 0;  // the reader thread's; carried across restarts
  std::unique_ptr<watch_detail::EventSource> source_;
  std::unique_ptr<platform::Wakeup> stopRequest_;
  std::unique_ptr<watch_detail::PendingBatch> initial_;  // what start found, for the reader
  std::thread reader_;
};

}  // namespace tarvolin
