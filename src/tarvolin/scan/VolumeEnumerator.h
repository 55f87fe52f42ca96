#pragma once
// Lists the local volumes a user could scan or catalogue: "/" and every mounted file system on a
// local block device, one entry per file system (by UUID, the first mount wins), without network
// and pseudo file systems and without the system's hidden mounts (below /proc, /sys, /dev, /boot,
// /snap, and /run other than /run/media). The boot volume comes first, then the rest by mount
// path.
//
// Whether a volume is a backup destination is learnt by listing its root, which can wake a
// sleeping disk or hang on a slow one; the answers are kept per volume (UUID and mount path) for
// the life of the process in one cache behind one lock, and probing can be switched off. The
// lock is never held while a volume is probed, so two threads may probe the same volume at once
// (both store the same answer).
//
// Every function may be called from any thread.

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tarvolin/platform/MountTable.h"
#include "tarvolin/scan/MountedVolume.h"
#include "tarvolin/scan/ScanPolicy.h"

namespace tarvolin::VolumeEnumerator {

/// What the system says about one mounted file system.
struct VolumeFacts {
  std::string uuid;                  // empty: the volume is left out
  std::optional<std::string> label;  // absent or empty: named after the mount point
  std::optional<int64_t> totalBytes;
  bool isInternal = false;
};

/// Where the enumerator gets its answers: live() asks this machine; a test hands in its own.
struct VolumeSource {
  /// The mount table in the kernel's order.
  std::function<std::vector<platform::MountEntry>()> mountTable;
  /// The facts of one mount that names a device (or is "/"); nothing when they cannot be read
  /// (not a block device, a vanished mount point): the volume is left out.
  std::function<std::optional<VolumeFacts>(const platform::MountEntry&)> facts;
  /// Lists a volume's top level for the backup probe.
  ScanPolicy::DirectoryContents contents;

  static VolumeSource live();
};

/// The volumes, boot volume first, then by mount path (stable).
std::vector<MountedVolume> mountedVolumes(const VolumeSource& source = VolumeSource::live());

/// mountedVolumes without the one mounted at "/", order kept.
std::vector<MountedVolume> externalVolumes(const VolumeSource& source = VolumeSource::live());

/// Whether volume roots may be probed (true until switched off). Switching off keeps the cached
/// answers; every volume not yet cached then reports no backup store.
bool probesVolumeRoots();
void setProbesVolumeRoots(bool allowed);

/// Drops every cached probe answer.
void forgetProbes();

/// Lists the volumes once and discards them, so the probe answers are cached before they are
/// needed (on a background thread at start-up, say).
void warmProbes(const VolumeSource& source = VolumeSource::live());

/// True for mount points the system keeps to itself.
bool isHiddenMountPath(std::string_view mountPath);

}  // namespace tarvolin::VolumeEnumerator
