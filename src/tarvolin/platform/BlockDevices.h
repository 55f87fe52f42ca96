#pragma once
// What the system knows about the block device behind a mounted file system: the file system's
// UUID and label, and whether the disk is built in. UUID and label come first from udev's
// /dev/disk/by-uuid and /dev/disk/by-label links (no disk access, readable by anyone), then from
// a libblkid probe of the device (needs read access to it), then from libblkid's cache file
// (what an earlier privileged probe saw). Whether a disk is built in comes from /sys/block.
//
// All functions may be called from any thread. None of them caches anything.

#include <cstdint>
#include <optional>
#include <string>

namespace tarvolin::platform {

/// The UUID and label of the file system on one block device, each absent when unknown.
struct BlockDeviceIdentity {
  std::optional<std::string> uuid;
  std::optional<std::string> label;

  friend bool operator==(const BlockDeviceIdentity&, const BlockDeviceIdentity&) = default;
};

/// True when `path` names a block device node (following links: /dev/mapper/x is one).
bool isBlockDevice(const std::string& path);

/// UUID and label of the file system on the block device at `devicePath` ("/dev/sda1").
BlockDeviceIdentity identifyBlockDevice(const std::string& devicePath);

/// The file-system UUID of the device whose files report `device` as st_dev: the block device
/// with that number, or, for file systems that give their files a device number of their own
/// (btrfs subvolumes), the block device the mount table names for it. Absent for file systems
/// without a block device (tmpfs, network) and when the UUID cannot be learnt; never made up.
std::optional<std::string> fileSystemUUID(uint64_t device);

/// The same for the file system holding `path` (stat, then the above). Absent when `path`
/// cannot be stat'ed.
std::optional<std::string> fileSystemUUID(const std::string& path);

/// True when the disk holding the block device at `devicePath` is built in: its
/// /sys/block/*/removable is 0 and it is not attached through USB. False when unknown.
bool isInternalBlockDevice(const std::string& devicePath);

}  // namespace tarvolin::platform
