#pragma once
// One local volume a user could scan or catalogue, as VolumeEnumerator lists it. A plain value.

#include <cstdint>
#include <optional>
#include <string>

namespace tarvolin {

struct MountedVolume {
  /// The file system's UUID (from the device), or its statfs id as hex when the device does not
  /// tell; never empty.
  std::string uuid;
  /// The mount point's path.
  std::string mountPath;
  /// The volume's label, or the mount point's last component ("/" for the root) without one.
  std::string name;
  /// Total capacity in bytes; absent when not reported.
  std::optional<int64_t> totalBytes;
  /// The disk is built in (not removable, not on USB); false when unknown.
  bool isInternal = false;
  /// The volume's root holds a backup store (see ScanPolicy::isTimeMachineDestination).
  bool isTimeMachineDestination = false;

  bool isBootVolume() const { return mountPath == "/"; }

  friend bool operator==(const MountedVolume&, const MountedVolume&) = default;
};

}  // namespace tarvolin
