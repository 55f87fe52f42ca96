#pragma once
// A thin owner of one fanotify group that reports, for every entry made, removed, renamed,
// written or touched anywhere on a marked file system, the file handle of the folder holding it
// and the entry's name. One mark covers a whole file system, where inotify needs one watch per
// folder; the price is that events arrive from all of it and the folder of each must be looked
// up (`pathOfHandle`) to know whether it matters. Needs CAP_SYS_ADMIN.
//
// One instance belongs to one thread at a time, except `fd()`, which any thread may poll.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin::platform {

/// One event as the kernel reports it. `handle` (a struct file_handle: byte count, type, bytes)
/// and `name` point into the bytes it was parsed from.
struct FanotifyEvent {
  uint64_t mask = 0;
  uint64_t fileSystemID = 0;  // the fsid the event's folder handle belongs to
  std::string_view handle;    // empty for an event without a folder (queue overflow)
  std::string_view name;      // empty, or "." for an event on the folder itself
};

/// Splits `bytes` (a run of fanotify event records with folder-and-name information) into
/// `events`, cleared first. A record shorter than its header claims, or running past the end,
/// stops the split; an information record of another type is skipped. Returns bytes consumed.
size_t parseFanotifyEvents(std::span<const uint8_t> bytes, std::vector<FanotifyEvent>& events);

class Fanotify {
 public:
  /// Mask bits, the kernel's values.
  static constexpr uint64_t kModify = 0x00000002;
  static constexpr uint64_t kAttrib = 0x00000004;
  static constexpr uint64_t kCloseWrite = 0x00000008;
  static constexpr uint64_t kMovedFrom = 0x00000040;
  static constexpr uint64_t kMovedTo = 0x00000080;
  static constexpr uint64_t kCreate = 0x00000100;
  static constexpr uint64_t kDelete = 0x00000200;
  static constexpr uint64_t kQueueOverflow = 0x00004000;
  static constexpr uint64_t kOnDirectory = 0x40000000;

  /// Opens a non-blocking group with an unbounded queue reporting folder handles and names.
  /// Returns nothing, errno set, when the kernel refuses (EPERM without the privilege, EINVAL
  /// on a kernel without folder-and-name reports).
  static std::optional<Fanotify> open();

  /// Marks the whole file system holding `path` for `mask`. Returns 0 or -errno (EXDEV for a
  /// path inside a subvolume or bind mount that is not the file system's root view,
  /// EOPNOTSUPP / ENODEV for a file system without file handles).
  int markFileSystem(const char* path, uint64_t mask);

  int fd() const { return fd_.get(); }

  /// Reads queued events into `buffer` without waiting: bytes read, 0 when none. Throws
  /// std::system_error. REQUIRES: buffer.size() >= 4096.
  size_t read(std::span<uint8_t> buffer);

 private:
  explicit Fanotify(FileDescriptor fd) : fd_(std::move(fd)) {}
  FileDescriptor fd_;
};

/// A descriptor on the file system holding `path` (opened for reading), to resolve that file
/// system's handles against, and the file system's id as fanotify reports it. Nothing when `path`
/// cannot be opened.
struct FileSystemReference {
  FileDescriptor mount;
  uint64_t fileSystemID = 0;
};
std::optional<FileSystemReference> fileSystemReference(const char* path);

/// The absolute path of the folder `handle` names, on the file system `mount` refers to.
/// Nothing when the folder no longer exists (the handle is stale) or cannot be opened.
std::optional<std::string> pathOfHandle(const FileDescriptor& mount, std::string_view handle);

}  // namespace tarvolin::platform
