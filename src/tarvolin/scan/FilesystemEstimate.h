#pragma once
// About how many entries will a scan of every local file system meet? The kernel keeps a count
// of the inodes in use per file system; their sum is a good upper estimate of the files and
// folders a full scan finds, learnt from the mount table and one statvfs per local mount,
// without reading any directory. The answer shows a scan's progress as a fraction before the
// scan ends.
//
// Network and FUSE mounts are never asked (statvfs waits for their server, which may be gone)
// and neither are kernel pseudo file systems (they hold no user files). Every function may be
// called from any thread.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tarvolin/platform/MountTable.h"

namespace tarvolin {

/// The inodes in use on one mounted file system.
struct VolumeSample {
  std::string mountPoint;
  int64_t usedInodes = 0;  // file slots minus free file slots
  bool isLocal = true;     // always true in samples from mountedVolumes()

  friend bool operator==(const VolumeSample&, const VolumeSample&) = default;
};

namespace FilesystemEstimate {

/// Supplies the samples to add up; nothing when they cannot be had.
using SampleSource = std::function<std::optional<std::vector<VolumeSample>>()>;
/// statvfs of a mount point, as platform::fileSystemStats.
using StatsSource = std::function<std::optional<platform::FileSystemStats>(const std::string&)>;

/// One sample per local file system of this machine with at least one inode in use.
std::vector<VolumeSample> mountedVolumes();

/// The samples of `table` (kernel order): local mounts only, the first mount of a device (its
/// device number) counted, later ones (bind mounts) not; a mount covered by a later one at the
/// same path is skipped. Mounts whose stats are missing or show no inode in use are left out.
std::vector<VolumeSample> samples(const std::vector<platform::MountEntry>& table,
                                  const StatsSource& stats);

/// The sum of the samples' used inodes; absent when there are no samples or the sum is below 1.
std::optional<int64_t> usedInodes(const SampleSource& now);

/// usedInodes of mountedVolumes().
std::optional<int64_t> usedInodes();

}  // namespace FilesystemEstimate
}  // namespace tarvolin
