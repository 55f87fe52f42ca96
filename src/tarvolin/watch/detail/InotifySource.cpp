#include "tarvolin/watch/detail/InotifySource.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <span>
#include <utility>

namespace tarvolin::watch_detail {
namespace {

using platform::Inotify;

// What each watch reports: entries made, removed, renamed, written or touched in the folder, and
// the folder itself going away.
constexpr uint32_t kFolderMask = Inotify::kCreate | Inotify::kDelete | Inotify::kMovedFrom |
                                 Inotify::kMovedTo | Inotify::kModify | Inotify::kCloseWrite |
                                 Inotify::kAttrib | Inotify::kDeleteSelf | Inotify::kMoveSelf |
                                 Inotify::kOnlyDirectory | Inotify::kExcludeUnlinked;

constexpr size_t kReadBytes = 256 * 1024;

}  // namespace

InotifySource::InotifySource(const std::vector<std::string>& roots, size_t watchCap,
                             PendingBatch& initial, UnwatchedFolders& unwatched)
    : inotify_(watchCap), unwatched_(unwatched), buffer_(kReadBytes) {
  for (const std::string& root : roots) {
    // A root may be a link to a folder (followed, as the owner named it); folders below are not.
    int watch = inotify_.addWatch(root.c_str(), kFolderMask);
    if (watch < 0) {
      initial.mustFullRescan = true;
      if (watch != -ENOENT && watch != -ENOTDIR) leaveUnwatched(root, initial);
      continue;
    }
    tree_.set(watch, root);
    rootWatches_.push_back(watch);
    // The root itself is watched; its subfolders follow.
    reader_.close();
    if (int error = reader_.open(root.c_str()); error != 0) {
      initial.mustFullRescan = true;
      if (error != ENOENT && error != ENOTDIR) leaveUnwatched(root, initial);
      continue;
    }
    std::vector<std::string> children;
    reader_.forEach([&](const platform::DirectoryEntry& entry) {
      if (entry.type == platform::EntryType::directory)
        children.push_back(joinPath(root, entry.name));
    });
    reader_.close();
    for (const std::string& child : children) watchSubtree(child, false, initial);
  }
}

void InotifySource::leaveUnwatched(const std::string& path, PendingBatch& batch) {
  // Later ones only grow the list: rescanning everything again for each would not end while
  // the limit holds, and the owner rescans the listed folders on its own schedule.
  if (unwatched_.add(path)) batch.mustFullRescan = true;
}

void InotifySource::watchSubtree(const std::string& path, bool reportFolders, PendingBatch& batch) {
  stack_.clear();
  stack_.push_back(path);
  while (!stack_.empty()) {
    std::string folder = std::move(stack_.back());
    stack_.pop_back();
    int watch = inotify_.addWatch(folder.c_str(), kFolderMask | Inotify::kDontFollow);
    if (watch < 0) {
      // Gone (or replaced by a file) before it could be watched: the event of its parent
      // already names the parent. Anything else leaves a folder unwatched.
      if (watch == -ENOENT || watch == -ENOTDIR) continue;
      leaveUnwatched(folder, batch);
      if (watch == -ENOSPC) {
        // Every further folder would fail the same way: those still waiting stay unwatched.
        for (const std::string& waiting : stack_) leaveUnwatched(waiting, batch);
        stack_.clear();
        return;
      }
      continue;
    }
    tree_.set(watch, folder);
    if (reportFolders) batch.addPath(folder);
    if (int error = reader_.open(folder.c_str()); error != 0) {
      // Watched, but the folders below it cannot be found to be watched.
      if (error != ENOENT && error != ENOTDIR) leaveUnwatched(folder, batch);
      continue;
    }
    reader_.forEach([&](const platform::DirectoryEntry& entry) {
      if (entry.type == platform::EntryType::directory) {
        stack_.push_back(joinPath(folder, entry.name));
      }
    });
    reader_.close();
  }
}

void InotifySource::drain(PendingBatch& batch) {
  for (;;) {
    size_t got = inotify_.read(buffer_);
    if (got == 0) break;
    platform::parseInotifyEvents(std::span<const uint8_t>(buffer_.data(), got), events_);
    // Names point into buffer_, which watchSubtree does not touch; events_ stays valid.
    for (const platform::InotifyEvent& event : events_) handle(event, batch);
  }
  dropMovedOut();
}

bool InotifySource::isRoot(int watch) const {
  return std::find(rootWatches_.begin(), rootWatches_.end(), watch) != rootWatches_.end();
}

void InotifySource::handle(const platform::InotifyEvent& event, PendingBatch& batch) {
  if (event.mask & Inotify::kQueueOverflow) {
    batch.mustFullRescan = true;
    return;
  }
  if (event.mask & Inotify::kIgnored) {
    inotify_.forgetWatch(event.watch);
    if (isRoot(event.watch)) {
      // The root went away (deleted, unmounted): nothing of it is watched any more.
      if (std::optional<std::string> root = tree_.path(event.watch)) {
        batch.addPath(*root);
        unwatched_.forget(*root);
      }
      batch.mustFullRescan = true;
      std::erase(rootWatches_, event.watch);
    }
    tree_.erase(event.watch);
    return;
  }
  std::optional<std::string> known = tree_.path(event.watch);
  if (!known) return;  // a watch already dropped; its events are stale
  const std::string folder = std::move(*known);
  if (event.mask & (Inotify::kDeleteSelf | Inotify::kMoveSelf | Inotify::kUnmount)) {
    // Below a root, the parent's own event names the parent; a root has no watched parent.
    if (isRoot(event.watch)) {
      batch.addPath(folder);
      batch.mustFullRescan = true;
      if (event.mask & Inotify::kMoveSelf) {
        unwatched_.forget(folder);
        // Still watched at its new place, where none of the paths hold: let it go.
        for (int watch : tree_.subtree(folder)) {
          if (watch != event.watch) inotify_.removeWatch(watch);
          if (watch != event.watch) tree_.erase(watch);
        }
      }
    } else if (event.mask & Inotify::kUnmount) {
      batch.addPath(folder);
    }
    return;
  }
  batch.addPath(folder);
  if (!(event.mask & Inotify::kIsDirectory) || event.name.empty()) return;
  if (event.mask & Inotify::kCreate) {
    watchSubtree(joinPath(folder, event.name), true, batch);
  } else if (event.mask & Inotify::kDelete) {
    unwatched_.forget(joinPath(folder, event.name));
  } else if (event.mask & Inotify::kMovedFrom) {
    movesOut_.push_back(MoveOut{event.cookie, joinPath(folder, event.name)});
  } else if (event.mask & Inotify::kMovedTo) {
    std::string to = joinPath(folder, event.name);
    auto from = std::find_if(movesOut_.begin(), movesOut_.end(),
                             [&](const MoveOut& move) { return move.cookie == event.cookie; });
    if (from != movesOut_.end()) {
      // Renamed inside the tree: same watches, new paths for it and everything below.
      tree_.rename(from->path, to);
      unwatched_.rename(from->path, to);
      movesOut_.erase(from);
    } else {
      watchSubtree(to, true, batch);  // moved in from outside the tree
    }
  }
}

void InotifySource::dropMovedOut() {
  for (const MoveOut& move : movesOut_) {
    unwatched_.forget(move.path);
    for (int watch : tree_.subtree(move.path)) {
      inotify_.removeWatch(watch);
      tree_.erase(watch);
    }
  }
  movesOut_.clear();
}

}  // namespace tarvolin::watch_detail
