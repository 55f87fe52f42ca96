#pragma once
// The kernel's table of mounted file systems, as plain data, and what each mount reports about
// its size. The table comes from /proc/self/mountinfo through libmount, which decodes the octal
// escapes the kernel writes for blanks, tabs, newlines and backslashes in paths ("\040"), so a
// MountEntry holds the real path. Everything that decides what to do with a mount (list it as a
// volume, prune it from a scan, count its inodes) works on these values, so it can be tested
// with tables made by hand.
//
// All functions may be called from any thread; each reads the table afresh.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarvolin::platform {

/// One line of the mount table.
struct MountEntry {
  std::string source;         // "/dev/vda1", "server:/export", "tmpfs"; empty when none is given
  std::string mountPoint;     // absolute path, escapes decoded
  std::string fsType;         // "ext4", "nfs4", "fuse.sshfs"
  std::string options;        // per-mount and per-file-system options, comma separated
  uint64_t deviceNumber = 0;  // st_dev of the files below the mount point (major:minor)
  std::string root;           // the folder of the file system shown here: "/" unless bind-mounted

  friend bool operator==(const MountEntry&, const MountEntry&) = default;
};

/// What kind of storage a file-system type is. The set of types is Linux's; an unknown type is
/// taken for a local one (new disk file systems appear more often than new network ones, and a
/// network type that slips through only costs time).
enum class FileSystemKind : uint8_t {
  local,    // a disk, a memory file system (tmpfs) or an overlay of local ones
  network,  // nfs, cifs, 9p, ceph ...: slow, may hang when the server goes away
  fuse,     // "fuse" and every "fuse.*" type (sshfs, rclone, gvfs ...): a user-space server
  pseudo,   // kernel views that hold no files of the user: proc, sysfs, cgroup, devpts ...
};

/// The kind of `fsType` as the mount table names it. "fuseblk" (a FUSE driver for a local
/// disk, such as NTFS) is local.
FileSystemKind fileSystemKind(std::string_view fsType);

/// The mount table of this process in the kernel's order (a mount comes after the mount it sits
/// on, so of two mounts at one path the later one is the visible one). Empty when unreadable.
std::vector<MountEntry> readMountTable();

/// The mount table written as mountinfo text. Lines that are not well formed are skipped.
std::vector<MountEntry> parseMountTable(std::string_view mountinfo);

/// `table` without the entries that a later mount at the same path covers (what a path lookup
/// reaches is the last mount there, so statvfs of the path describes that one). Order is kept.
std::vector<MountEntry> visibleMounts(std::vector<MountEntry> table);

/// statvfs of a mounted file system.
struct FileSystemStats {
  uint64_t totalBytes = 0;  // f_blocks * f_frsize
  uint64_t files = 0;       // f_files: file slots (inodes), 0 where the file system has no limit
  uint64_t freeFiles = 0;   // f_ffree

  friend bool operator==(const FileSystemStats&, const FileSystemStats&) = default;
};

/// statvfs of `path`; nothing when it fails (a vanished mount point, no permission). Never call
/// it on a network or FUSE mount: it waits for the server.
std::optional<FileSystemStats> fileSystemStats(const std::string& path);

/// The file-system id statfs reports for `path` (f_fsid) as 16 lower-case hex digits; nothing
/// when statfs fails or the id is zero. Stable while the file system stays mounted.
std::optional<std::string> fileSystemIdHex(const std::string& path);

}  // namespace tarvolin::platform
