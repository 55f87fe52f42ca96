#pragma once
// The fanotify side of the watcher: one mark per file system holding a root. Events come from
// the whole file system; each names the folder it happened in by file handle, which is looked up
// (and cached) to learn its path and keep only what lies below a root. New folders need no set-up
// at all, so nothing made in them can slip by. Used by the reader thread only.
//
// A handle that no longer opens belongs to a folder deleted since the event: its own deletion
// is an event in its parent, which names the parent, so such events are dropped. The cache of
// paths is emptied whenever any folder on the file system is renamed or removed, since that
// changes or ends the paths of everything below it.
//
// A folder made or moved in is named itself, with every folder inside it: entries moved in with
// it have no events of their own. The two halves of a rename are not paired (fanotify gives them
// no cookie), so a folder renamed inside the roots is named whole in the same way: more than
// the two parents inotify names, never less.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "tarvolin/platform/DirectoryReader.h"
#include "tarvolin/platform/Fanotify.h"
#include "tarvolin/watch/detail/EventSource.h"

namespace tarvolin::watch_detail {

class FanotifySource final : public EventSource {
 public:
  /// A source watching `roots` (absolute, normalised), or nothing when fanotify cannot serve
  /// them here: no privilege, an old kernel, a root that is missing or on a file system that
  /// cannot be marked whole. `initial` is left alone.
  static std::unique_ptr<FanotifySource> open(const std::vector<std::string>& roots);

  int fd() const override { return fanotify_.fd(); }
  void drain(PendingBatch& batch) override;

 private:
  struct Root {
    std::string given;     // as the owner named it, the form paths are reported in
    std::string resolved;  // without links, the form the kernel reports
  };
  struct FileSystem {
    uint64_t id;
    platform::FileDescriptor mount;
  };

  explicit FanotifySource(platform::Fanotify fanotify) : fanotify_(std::move(fanotify)) {}
  void handle(const platform::FanotifyEvent& event, PendingBatch& batch);
  /// A folder as looked up: where it is, and how it is reported (nothing when outside the roots).
  struct Folder {
    std::string resolved;
    std::optional<std::string> reported;
  };
  /// The folder `event` happened in; nullptr when its handle no longer opens.
  const Folder* folderOf(const platform::FanotifyEvent& event);
  /// Adds `path` and every folder below it to `batch`.
  void reportSubtree(const std::string& path, PendingBatch& batch);
  /// `resolved` in the owner's form when it lies at or below a root.
  std::optional<std::string> insideRoots(const std::string& resolved) const;

  platform::Fanotify fanotify_;
  std::vector<Root> roots_;
  std::vector<FileSystem> fileSystems_;
  // Folder handle (file-system id and handle bytes) -> the folder.
  std::unordered_map<std::string, Folder> cache_;
  std::string key_;  // reused to build cache keys
  std::vector<uint8_t> buffer_;
  std::vector<platform::FanotifyEvent> events_;
  std::vector<std::string> stack_;  // folders still to list in reportSubtree
  platform::DirectoryReader reader_;
};

}  // namespace tarvolin::watch_detail
