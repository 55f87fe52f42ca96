#pragma once
// A thin owner of one inotify instance: add and remove watches, read raw event bytes, and split
// those bytes into events. It keeps no paths; the watcher maps watch descriptors to folders.
//
// An instance may be given a cap on the watches it holds: past the cap, adding a watch fails with
// ENOSPC exactly as when the kernel's per-user limit is reached, so an owner can bound the kernel
// memory one watcher takes, and tests can reach the limit path without changing the system's.
//
// One instance belongs to one thread at a time, except `fd()`, which any thread may poll.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin::platform {

/// One event as the kernel reports it. `name` points into the bytes it was parsed from and is
/// empty for events on the watched folder itself.
struct InotifyEvent {
  int watch = -1;  // the watch descriptor
  uint32_t mask = 0;
  uint32_t cookie = 0;  // pairs the two halves of a rename
  std::string_view name;
};

/// Splits `bytes` (a run of struct inotify_event records) into `events`, which is cleared first.
/// A record whose header or name runs past the end stops the split (the records before it are
/// kept); the name ends at its first NUL. Returns the number of bytes consumed.
size_t parseInotifyEvents(std::span<const uint8_t> bytes, std::vector<InotifyEvent>& events);

class Inotify {
 public:
  /// Mask bits, the kernel's values, so callers need no system header.
  static constexpr uint32_t kModify = 0x00000002;
  static constexpr uint32_t kAttrib = 0x00000004;
  static constexpr uint32_t kCloseWrite = 0x00000008;
  static constexpr uint32_t kMovedFrom = 0x00000040;
  static constexpr uint32_t kMovedTo = 0x00000080;
  static constexpr uint32_t kCreate = 0x00000100;
  static constexpr uint32_t kDelete = 0x00000200;
  static constexpr uint32_t kDeleteSelf = 0x00000400;
  static constexpr uint32_t kMoveSelf = 0x00000800;
  static constexpr uint32_t kUnmount = 0x00002000;
  static constexpr uint32_t kQueueOverflow = 0x00004000;
  static constexpr uint32_t kIgnored = 0x00008000;
  static constexpr uint32_t kOnlyDirectory = 0x01000000;
  static constexpr uint32_t kDontFollow = 0x02000000;
  static constexpr uint32_t kExcludeUnlinked = 0x04000000;
  static constexpr uint32_t kIsDirectory = 0x40000000;

  /// No cap beyond the kernel's own limit.
  static constexpr size_t kNoWatchCap = SIZE_MAX;

  /// Opens a non-blocking, close-on-exec instance. Throws std::system_error (EMFILE when the
  /// per-user instance limit is reached).
  explicit Inotify(size_t watchCap = kNoWatchCap);

  /// The descriptor to poll for readability.
  int fd() const { return fd_.get(); }

  /// Watches the folder at `path` (NUL-terminated) for `mask`. Returns the watch descriptor
  /// (the same one again for a folder already watched), or -errno: -ENOSPC at the kernel's limit
  /// or this instance's cap, -ENOENT / -ENOTDIR when the folder is gone, -EACCES.
  int addWatch(const char* path, uint32_t mask);
  /// Stops a watch; the kernel then queues an IN_IGNORED event for it. Unknown ones are ignored.
  void removeWatch(int watch);
  /// Watches currently held (added, and neither removed nor reported ignored).
  size_t watchCount() const { return live_.size(); }
  /// Tells the instance that the kernel dropped a watch by itself (an IN_IGNORED event arrived).
  void forgetWatch(int watch) { live_.erase(watch); }

  /// Reads whatever events are queued into `buffer` without waiting. Returns the bytes read, 0
  /// when nothing is queued. Throws std::system_error on a failed read.
  /// REQUIRES: buffer.size() >= 4096 (room for the largest single event).
  size_t read(std::span<uint8_t> buffer);

 private:
  FileDescriptor fd_;
  size_t watchCap_;
  std::unordered_set<int> live_;
};

}  // namespace tarvolin::platform
