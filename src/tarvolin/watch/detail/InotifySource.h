#pragma once
// The inotify side of the watcher: one watch on every folder below the roots, new folders watched
// as they appear, watches dropped as folders go, and each event turned into the folder it
// changed. Used by the reader thread only.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tarvolin/platform/DirectoryReader.h"
#include "tarvolin/platform/Inotify.h"
#include "tarvolin/watch/detail/EventSource.h"
#include "tarvolin/watch/detail/UnwatchedFolders.h"
#include "tarvolin/watch/detail/WatchTree.h"

namespace tarvolin::watch_detail {

class InotifySource final : public EventSource {
 public:
  /// Watches every folder below `roots` (absolute, normalised). A missing root sets
  /// `initial.mustFullRescan`. A folder that cannot be watched (the watch limit or `watchCap`
  /// reached, an unreadable folder), here or later, goes into `unwatched` with the folders its
  /// walk had still to watch, and the first one sets `mustFullRescan` in its batch. Throws
  /// std::system_error when inotify itself cannot be opened. `unwatched` must outlive the source.
  InotifySource(const std::vector<std::string>& roots, size_t watchCap, PendingBatch& initial,
                UnwatchedFolders& unwatched);

  int fd() const override { return inotify_.fd(); }
  void drain(PendingBatch& batch) override;

  /// Folders watched now.
  size_t watchCount() const { return tree_.size(); }

 private:
  /// A folder moved away from a watched folder whose arrival has not been seen yet.
  struct MoveOut {
    uint32_t cookie;
    std::string path;
  };

  /// Watches `path` and every folder below it. With `reportFolders`, each folder watched is
  /// also added to `batch`: it is new, and entries made in it before its watch existed have no
  /// event of their own.
  void watchSubtree(const std::string& path, bool reportFolders, PendingBatch& batch);
  void handle(const platform::InotifyEvent& event, PendingBatch& batch);
  /// Records `path` as the top of an unwatched subtree; the first such folder asks for a rescan.
  void leaveUnwatched(const std::string& path, PendingBatch& batch);
  /// Folders moved out of the tree: their watches would report paths that no longer hold.
  void dropMovedOut();
  bool isRoot(int watch) const;

  platform::Inotify inotify_;
  WatchTree tree_;
  UnwatchedFolders& unwatched_;
  std::vector<int> rootWatches_;
  std::vector<uint8_t> buffer_;
  std::vector<platform::InotifyEvent> events_;
  std::vector<MoveOut> movesOut_;
  std::vector<std::string> stack_;  // folders still to watch in watchSubtree
  platform::DirectoryReader reader_;
};

}  // namespace tarvolin::watch_detail
