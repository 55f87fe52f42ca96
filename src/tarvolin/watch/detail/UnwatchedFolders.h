#pragma once
// The folders a watcher could not watch, each the top of a subtree with no watch in it (the
// watch limit or cap reached, an unreadable folder). Kept minimal: no folder twice and none below
// another, so an owner that rescans each whole covers everything unwatched, once. Paths follow
// renames seen in watched parents and go when their folder is deleted or moved away.
//
// Thread-safe: the reader thread changes it while any thread reads it.

#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace tarvolin::watch_detail {

class UnwatchedFolders {
 public:
  /// Adds `path` (absolute, normalised) unless it lies at or below a folder already kept; drops
  /// the folders kept below it. Returns true when nothing was kept before.
  bool add(std::string_view path);
  /// Drops `path` and every folder kept below it.
  void forget(std::string_view path);
  /// Moves `from` and every folder kept below it to `to`.
  void rename(std::string_view from, std::string_view to);
  /// The folders, sorted by path.
  std::vector<std::string> list() const;
  void clear();

 private:
  /// Erases the entries at or below `path`; returns them. REQUIRES: lock_ held.
  std::vector<std::string> takeSubtree(std::string_view path);
  /// Whether `path` lies at or below a kept folder. REQUIRES: lock_ held.
  bool covered(std::string_view path) const;
  /// Adds with lock_ held.
  void insert(std::string_view path);

  mutable std::mutex lock_;
  std::set<std::string, std::less<>> folders_;
};

}  // namespace tarvolin::watch_detail
