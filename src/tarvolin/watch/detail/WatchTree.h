#pragma once
// The watcher's map between watch descriptors and the folders they watch, both ways. Folder
// paths are absolute and normalised ("/" alone, otherwise no trailing slash). A folder renamed
// inside the watched tree keeps its watch, so `rename` rewrites its path and every path below it;
// the map ordered by path makes "this folder and all below it" one contiguous range.
//
// Used by one reader thread only.

#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tarvolin::watch_detail {

/// `folder` + "/" + `name`, without doubling the slash of "/".
std::string joinPath(std::string_view folder, std::string_view name);

class WatchTree {
 public:
  /// Records that `watch` watches `path`, replacing whatever either was mapped to before.
  void set(int watch, std::string path);
  /// The folder of `watch`, or nullptr for a watch not (or no longer) known.
  const std::string* path(int watch) const;
  /// Forgets `watch`; unknown ones are ignored.
  void erase(int watch);
  /// The watches of `path` and every folder below it.
  std::vector<int> subtree(std::string_view path) const;
  /// Moves `from` and every folder below it to `to`, keeping their watches. When `to` or
  /// folders below it were mapped already (stale entries of a folder replaced by the move),
  /// those entries go first.
  void rename(std::string_view from, std::string_view to);
  size_t size() const { return byWatch_.size(); }

 private:
  std::unordered_map<int, std::string> byWatch_;
  std::map<std::string, int, std::less<>> byPath_;
};

}  // namespace tarvolin::watch_detail
