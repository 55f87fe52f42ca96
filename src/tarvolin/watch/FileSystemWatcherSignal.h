#pragma once
// What a FileSystemWatcher tells its owner after each batch of file-system events: the folders
// whose listings changed, that events were lost and everything must be rescanned, or that the
// replay of past events has reached the present. A batch yields each kind at most once, in the
// order of `Kind`.

#include <string>
#include <utility>
#include <vector>

namespace tarvolin {

struct FileSystemWatcherSignal {
  enum class Kind {
    /// `paths`: the folders whose entries changed in one batch, never empty (see
    /// FileSystemWatcher for which folders an event names).
    changedPaths,
    /// Events were lost, or a folder could not be watched: the owner must rescan all it watches.
    mustFullRescan,
    /// The replay of past events asked for at start has reached the present.
    historyDone,
  };

  Kind kind = Kind::mustFullRescan;
  std::vector<std::string> paths;  // only for changedPaths

  static FileSystemWatcherSignal changedPaths(std::vector<std::string> paths) {
    return {Kind::changedPaths, std::move(paths)};
  }
  static FileSystemWatcherSignal mustFullRescan() { return {Kind::mustFullRescan, {}}; }
  static FileSystemWatcherSignal historyDone() { return {Kind::historyDone, {}}; }

  friend bool operator==(const FileSystemWatcherSignal&, const FileSystemWatcherSignal&) = default;
};

}  // namespace tarvolin
