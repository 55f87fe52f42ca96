// The mount table as data: mountinfo text with odd paths, file-system kinds, and what the live
// table and the block-device lookups give on any machine.

#include <gtest/gtest.h>

#include <algorithm>

#include "tarvolin/platform/BlockDevices.h"
#include "tarvolin/platform/MountTable.h"

namespace tarvolin::platform {
namespace {

constexpr uint64_t device(uint64_t major, uint64_t minor) { return (major << 8) | minor; }

TEST(MountTableTest, ParsesMountinfoLinesDecodingEscapes) {
  struct Case {
    const char* line;
    MountEntry expected;
  };
  const Case cases[] = {
      {"27 1 254:0 / / rw,relatime - ext4 /dev/vda rw,discard\n",
       {"/dev/vda", "/", "ext4", "rw,relatime,discard", device(254, 0), "/"}},
      // Blank, tab, newline and backslash are written as octal escapes by the kernel.
      {"40 27 8:17 / /media/My\\040Disk\\011x\\012y\\134z rw shared:5 master:2 - vfat "
       "/dev/sdb1 rw\n",
       {"/dev/sdb1", "/media/My Disk\tx\ny\\z", "vfat", "rw", device(8, 17), "/"}},
      // A bind mount shows a folder of the file system: its root is not "/".
      {"41 27 254:0 /srv/data /mnt/data rw - ext4 /dev/vda rw\n",
       {"/dev/vda", "/mnt/data", "ext4", "rw", device(254, 0), "/srv/data"}},
      {"42 27 0:51 / /home/u/remote rw,nosuid - fuse.sshfs u@host:/ rw,user_id=0\n",
       {"u@host:/", "/home/u/remote", "fuse.sshfs", "rw,nosuid,user_id=0", device(0, 51), "/"}},
      {"43 27 0:52 / /net/share rw - nfs4 server:/export rw,vers=4.2\n",
       {"server:/export", "/net/share", "nfs4", "rw,vers=4.2", device(0, 52), "/"}},
      {"44 27 0:53 /@snapshots /.snapshots rw - btrfs /dev/sda2 rw,subvol=/@snapshots\n",
       {"/dev/sda2", "/.snapshots", "btrfs", "rw,subvol=/@snapshots", device(0, 53),
        "/@snapshots"}},
  };
  for (const Case& c : cases) {
    std::vector<MountEntry> entries = parseMountTable(c.line);
    ASSERT_EQ(entries.size(), 1u) << c.line;
    EXPECT_EQ(entries[0], c.expected) << c.line;
  }
}

TEST(MountTableTest, MalformedLinesAreSkippedAndOrderIsKept) {
  std::string text =
      "22 27 0:21 / /proc rw - proc proc rw\n"
      "this is not a mount\n"
      "23 27 0:22\n"
      "\n"
      "27 1 254:0 / / rw - ext4 /dev/vda rw\n";
  std::vector<MountEntry> entries = parseMountTable(text);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].mountPoint, "/proc");
  EXPECT_EQ(entries[1].mountPoint, "/");
  EXPECT_TRUE(parseMountTable("").empty());
  EXPECT_TRUE(parseMountTable(std::string("\0\0\0", 3)).empty());
}

TEST(MountTableTest, FileSystemKinds) {
  const std::pair<const char*, FileSystemKind> cases[] = {
      {"ext4", FileSystemKind::local},        {"btrfs", FileSystemKind::local},
      {"tmpfs", FileSystemKind::local},       {"overlay", FileSystemKind::local},
      {"fuseblk", FileSystemKind::local},     {"somenewfs", FileSystemKind::local},
      {"nfs", FileSystemKind::network},       {"nfs4", FileSystemKind::network},
      {"cifs", FileSystemKind::network},      {"smb3", FileSystemKind::network},
      {"9p", FileSystemKind::network},        {"ceph", FileSystemKind::network},
      {"glusterfs", FileSystemKind::network}, {"davfs", FileSystemKind::network},
      {"fuse", FileSystemKind::fuse},         {"fuse.sshfs", FileSystemKind::fuse},
      {"fuse.rclone", FileSystemKind::fuse},  {"fuse.gvfsd-fuse", FileSystemKind::fuse},
      {"proc", FileSystemKind::pseudo},       {"sysfs", FileSystemKind::pseudo},
      {"cgroup2", FileSystemKind::pseudo},    {"devpts", FileSystemKind::pseudo},
      {"autofs", FileSystemKind::pseudo},     {"binfmt_misc", FileSystemKind::pseudo},
      {"efivarfs", FileSystemKind::pseudo},   {"fusectl", FileSystemKind::pseudo},
      {"nfsd", FileSystemKind::pseudo},       {"fusex", FileSystemKind::local},
  };
  for (const auto& [type, kind] : cases) EXPECT_EQ(fileSystemKind(type), kind) << type;
}

TEST(MountTableTest, LiveTableHasTheRootAndProcessTable) {
  std::vector<MountEntry> entries = readMountTable();
  auto at = [&entries](const char* path) {
    return std::find_if(entries.begin(), entries.end(),
                        [path](const MountEntry& e) { return e.mountPoint == path; });
  };
  ASSERT_NE(at("/"), entries.end());
  ASSERT_NE(at("/proc"), entries.end());
  EXPECT_EQ(fileSystemKind(at("/proc")->fsType), FileSystemKind::pseudo);
  for (const MountEntry& entry : entries) {
    EXPECT_EQ(entry.mountPoint.front(), '/');
    EXPECT_FALSE(entry.fsType.empty()) << entry.mountPoint;
  }
}

TEST(MountTableTest, StatsAndIdOfTheRootAndOfAMissingPath) {
  std::optional<FileSystemStats> root = fileSystemStats("/");
  ASSERT_TRUE(root);
  EXPECT_GT(root->totalBytes, 0u);
  EXPECT_LE(root->freeFiles, root->files);
  EXPECT_FALSE(fileSystemStats("/no/such/mount/point"));

  std::optional<std::string> id = fileSystemIdHex("/");
  ASSERT_TRUE(id);
  EXPECT_EQ(id->size(), 16u);
  EXPECT_EQ(id->find_first_not_of("0123456789abcdef"), std::string::npos);
  EXPECT_FALSE(fileSystemIdHex("/no/such/mount/point"));
}

TEST(BlockDevicesTest, NoUUIDWithoutABlockDevice) {
  // The process table has no disk behind it; a missing path has no file system at all.
  EXPECT_FALSE(fileSystemUUID(std::string("/proc")));
  EXPECT_FALSE(fileSystemUUID(std::string("/no/such/path")));
  EXPECT_FALSE(isBlockDevice("/dev/null"));
  EXPECT_FALSE(isInternalBlockDevice("/dev/null"));
  EXPECT_EQ(identifyBlockDevice("/dev/null"), BlockDeviceIdentity{});
  EXPECT_EQ(identifyBlockDevice("/no/such/device"), BlockDeviceIdentity{});
}

TEST(BlockDevicesTest, RootUUIDAgreesWithItsDevice) {
  // Whatever this machine can learn about its root disk, the two ways of asking agree, and a
  // UUID, when there is one, is never empty.
  for (const MountEntry& entry : readMountTable()) {
    if (entry.mountPoint != "/" || !isBlockDevice(entry.source)) continue;
    std::optional<std::string> byPath = fileSystemUUID(std::string("/"));
    EXPECT_EQ(byPath, identifyBlockDevice(entry.source).uuid);
    if (byPath) {
      EXPECT_FALSE(byPath->empty());
    }
  }
}

}  // namespace
}  // namespace tarvolin::platform
