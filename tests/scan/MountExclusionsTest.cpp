// Which mounts a scan stays out of, from hand-made mount tables.

#include <gtest/gtest.h>

#include "tarvolin/platform/MountTable.h"
#include "tarvolin/scan/ScanPolicy.h"

namespace tarvolin {
namespace {

using platform::MountEntry;

MountEntry mount(std::string mountPoint, std::string fsType, std::string source = "none",
                 uint64_t device = 0) {
  return MountEntry{std::move(source), std::move(mountPoint), std::move(fsType), "rw", device, "/"};
}

// A desktop's table: root disk, a separate home, pseudo file systems, removable and remote media.
const std::vector<MountEntry>& desktopTable() {
  static const std::vector<MountEntry> table = {
      mount("/", "btrfs", "/dev/nvme0n1p2", 0x1a),
      mount("/proc", "proc", "proc"),
      mount("/sys", "sysfs", "sysfs"),
      mount("/sys/fs/cgroup", "cgroup2", "cgroup2"),
      mount("/dev", "devtmpfs", "udev"),
      mount("/dev/pts", "devpts", "devpts"),
      mount("/run", "tmpfs", "tmpfs"),
      mount("/tmp", "tmpfs", "tmpfs"),
      mount("/.snapshots", "btrfs", "/dev/nvme0n1p2", 0x1b),
      mount("/home", "btrfs", "/dev/nvme0n1p2", 0x1c),
      mount("/boot/efi", "vfat", "/dev/nvme0n1p1", 0x10301),
      mount("/proc/sys/fs/binfmt_misc", "autofs", "systemd-1"),
      mount("/home/ann/My Server", "nfs4", "server:/export"),
      mount("/home/ann/remote", "fuse.sshfs", "ann@host:/"),
      mount("/run/user/1000/gvfs", "fuse.gvfsd-fuse", "gvfsd-fuse"),
      mount("/run/media/ann/USB STICK", "fuseblk", "/dev/sdb1", 0x811),
      mount("/mnt/data", "ext4", "/dev/sdc1", 0x821),
      mount("/mnt/share", "cifs", "//nas/share"),
      mount("/mnt/vm", "9p", "hostshare"),
      mount("/mnt/bind", "ext4", "/dev/sdc1", 0x821),
  };
  return table;
}

TEST(MountExclusionsTest, PrunesRemoteFuseAndPseudoMountsBelowTheRoot) {
  const std::vector<std::string> wholeDisk = {"/.snapshots",
                                              "/dev",
                                              "/dev/pts",
                                              "/home/.snapshots",
                                              "/home/ann/My Server",
                                              "/home/ann/remote",
                                              "/mnt/share",
                                              "/mnt/vm",
                                              "/proc",
                                              "/proc/sys/fs/binfmt_misc",
                                              "/run/user/1000/gvfs",
                                              "/sys",
                                              "/sys/fs/cgroup"};
  struct Case {
    const char* root;
    std::vector<std::string> expected;
  };
  const Case cases[] = {
      {"/", wholeDisk},
      // The scanner spells "/" as "" and drops trailing slashes; so does the policy.
      {"", wholeDisk},
      {"/home/", {"/home/.snapshots", "/home/ann/My Server", "/home/ann/remote"}},
      {"/home/ann", {"/home/ann/My Server", "/home/ann/remote"}},
      // A root inside a pruned mount walks it, and still skips what lies below it.
      {"/proc", {"/proc/sys/fs/binfmt_misc"}},
      {"/home/ann/remote", {}},
      {"/home/ann/remote/sub", {}},
      {"/.snapshots/1/snapshot", {}},
      {"/home/.snapshots", {}},
      // Names sharing a prefix are not below one another.
      {"/home/an", {}},
      {"/mnt/data", {}},
      {"/nowhere", {}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(ScanPolicy::mountExclusions(c.root, desktopTable()), c.expected) << c.root;
  }
}

TEST(MountExclusionsTest, LocalDisksTmpfsAndFuseblkAreScanned) {
  std::vector<std::string> pruned = ScanPolicy::mountExclusions("/", desktopTable());
  for (const char* kept : {"/tmp", "/run", "/mnt/data", "/mnt/bind", "/boot/efi",
                           "/run/media/ann/USB STICK", "/home"}) {
    EXPECT_EQ(std::count(pruned.begin(), pruned.end(), kept), 0) << kept;
  }
}

TEST(MountExclusionsTest, SnapshotFoldersOfEveryBtrfsMountAndNoDuplicates) {
  // Two subvolumes and a bind mount of one; the snapshot mount also appears twice.
  std::vector<MountEntry> table = {
      mount("/", "ext4", "/dev/vda1", 1),
      mount("/srv", "btrfs", "/dev/vdb", 2),
      mount("/srv/.snapshots", "btrfs", "/dev/vdb", 3),
      mount("/srv/.snapshots", "btrfs", "/dev/vdb", 3),
      mount("/data", "btrfs", "/dev/vdb", 4),
      mount("/mnt/.snapshots", "ext4", "/dev/vdc", 5),  // only btrfs's are snapshot trees
      mount("/net/a", "nfs", "s:/a"),
      mount("/net/a", "nfs", "s:/a"),
  };
  EXPECT_EQ(ScanPolicy::mountExclusions("/", table),
            (std::vector<std::string>{"/data/.snapshots", "/net/a", "/srv/.snapshots"}));
}

TEST(MountExclusionsTest, ScanPolicyWithMountExclusionsSkipsThemAndKeepsDefaults) {
  ScanPolicy policy = ScanPolicy{ScanPolicy::defaultExclusions()}.adding(
      ScanPolicy::mountExclusions("/", desktopTable()));
  EXPECT_FALSE(policy.shouldDescend("/home/ann/My Server"));
  EXPECT_FALSE(policy.shouldDescend("/home/.snapshots"));
  EXPECT_FALSE(policy.shouldDescend("/proc"));
  EXPECT_TRUE(policy.shouldDescend("/home/ann"));
  EXPECT_TRUE(policy.shouldDescend("/mnt/data"));
  for (const std::string& path : ScanPolicy::defaultExclusions()) {
    EXPECT_TRUE(policy.excluded.contains(path)) << path;
  }
}

TEST(MountExclusionsTest, LiveTableNeverPrunesTheRootOrItsAncestors) {
  std::vector<std::string> pruned = ScanPolicy::mountExclusions("/");
  EXPECT_EQ(std::count(pruned.begin(), pruned.end(), "/"), 0);
  // Every machine has a process table mounted at /proc.
  EXPECT_EQ(std::count(pruned.begin(), pruned.end(), "/proc"), 1);
  EXPECT_TRUE(std::is_sorted(pruned.begin(), pruned.end()));
  EXPECT_TRUE(ScanPolicy::mountExclusions("/proc").empty() ||
              ScanPolicy::mountExclusions("/proc").front().starts_with("/proc/"));
}

}  // namespace
}  // namespace tarvolin
