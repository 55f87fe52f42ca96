// The volume list from hand-made mount tables and answers, the probe cache, and the invariants
// of this machine's own list.

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <set>
#include <thread>

#include "tarvolin/scan/VolumeEnumerator.h"

namespace tarvolin {
namespace {

using platform::MountEntry;
using VolumeEnumerator::VolumeFacts;
using VolumeEnumerator::VolumeSource;

MountEntry mount(std::string mountPoint, std::string fsType, std::string source) {
  return MountEntry{std::move(source), std::move(mountPoint), std::move(fsType), "rw", 0, "/"};
}

// A machine made up by the test: a table, the facts of each device (missing: unreadable) and
// the top-level names of each volume root (missing: unreadable). Counts the probes.
struct FakeMachine {
  std::vector<MountEntry> table;
  std::map<std::string, VolumeFacts> facts;  // by source
  std::map<std::string, std::vector<std::string>> roots;
  std::shared_ptr<std::atomic<int>> probes = std::make_shared<std::atomic<int>>(0);
  std::shared_ptr<std::map<std::string, int>> probesOf =
      std::make_shared<std::map<std::string, int>>();

  VolumeSource source() const {
    return VolumeSource{[this] { return table; },
                        [this](const MountEntry& entry) -> std::optional<VolumeFacts> {
                          auto found = facts.find(entry.source);
                          if (found == facts.end()) return std::nullopt;
                          return found->second;
                        },
                        [this](const std::string& path) -> std::optional<std::vector<std::string>> {
                          ++*probes;
                          ++(*probesOf)[path];
                          auto found = roots.find(path);
                          if (found == roots.end()) return std::nullopt;
                          return found->second;
                        }};
  }
};

// Each test names its UUIDs after itself: the probe cache lives for the process.
class VolumeEnumeratorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VolumeEnumerator::forgetProbes();
    VolumeEnumerator::setProbesVolumeRoots(true);
  }
  void TearDown() override { VolumeEnumerator::setProbesVolumeRoots(true); }

  static FakeMachine desktop(const std::string& tag) {
    FakeMachine machine;
    machine.table = {
        mount("/proc", "proc", "proc"),
        mount("/mnt/bind-of-root", "ext4", "/dev/vda1"),  // listed before "/": "/" still wins
        mount("/", "ext4", "/dev/vda1"),
        mount("/boot", "ext4", "/dev/vda2"),
        mount("/boot/efi", "vfat", "/dev/vda3"),
        mount("/snap/core/1", "squashfs", "/dev/loop0"),
        mount("/run/user/1000/doc", "fuse.portal", "portal"),
        mount("/run/media/ann/STICK", "vfat", "/dev/sdb1"),
        mount("/run/lock", "tmpfs", "tmpfs"),
        mount("/tmp", "tmpfs", "tmpfs"),
        mount("/net/home", "nfs4", "/dev/fake-remote"),  // remote, whatever its source says
        mount("/media/backup", "ext4", "/dev/sdc1"),
        mount("/mnt/gone", "ext4", "/dev/sdd1"),  // no facts: vanished
        mount("/mnt/nouuid", "ext4", "/dev/sde1"),
        mount("/mnt/a b\ny", "xfs", "/dev/sdf1"),
        mount("/mnt/over", "ext4", "/dev/sdg1"),  // covered by the next mount at the path
        mount("/mnt/over", "ext4", "/dev/sdh1"),
        mount("/home", "btrfs", "/dev/vda4"),
        mount("/home/ann/Archive", "btrfs", "/dev/vda4"),  // same file system again
    };
    auto facts = [&tag](const char* uuid, std::optional<std::string> label, bool internal) {
      return VolumeFacts{uuid[0] ? tag + "-" + uuid : "", std::move(label), 1000, internal};
    };
    for (const char* device : {"/dev/vda1", "/dev/vda2", "/dev/vda3", "/dev/loop0"}) {
      machine.facts[device] = facts(device + 5, std::nullopt, true);
    }
    machine.facts["/dev/vda1"].label = "System";
    machine.facts["/dev/sdb1"] = facts("stick", "STICK LABEL", false);
    machine.facts["/dev/fake-remote"] = facts("remote", std::nullopt, false);
    machine.facts["/dev/sdc1"] = facts("backup", "", false);
    machine.facts["/dev/sde1"] = facts("", std::nullopt, true);
    machine.facts["/dev/sdf1"] = facts("odd", std::nullopt, true);
    machine.facts["/dev/sdg1"] = facts("under", std::nullopt, true);
    machine.facts["/dev/sdh1"] = facts("over", std::nullopt, true);
    machine.facts["/dev/vda4"] = facts("home", std::nullopt, true);
    machine.facts["/dev/vda4"].totalBytes = std::nullopt;
    machine.roots["/media/backup"] = {"lost+found", "Backups.backupdb"};
    machine.roots["/run/media/ann/STICK"] = {"photos"};
    return machine;
  }
};

std::vector<std::string> pathsOf(const std::vector<MountedVolume>& volumes) {
  std::vector<std::string> paths;
  for (const MountedVolume& volume : volumes) paths.push_back(volume.mountPath);
  return paths;
}

TEST_F(VolumeEnumeratorTest, ListsLocalDeviceVolumesBootFirstThenByPath) {
  FakeMachine machine = desktop("list");
  std::vector<MountedVolume> volumes = VolumeEnumerator::mountedVolumes(machine.source());
  ASSERT_EQ(pathsOf(volumes),
            (std::vector<std::string>{"/", "/home", "/media/backup", "/mnt/a b\ny", "/mnt/over",
                                      "/run/media/ann/STICK"}));
  EXPECT_EQ(volumes[0], (MountedVolume{"list-vda1", "/", "System", 1000, true, false}));
  EXPECT_TRUE(volumes[0].isBootVolume());
  EXPECT_EQ(volumes[1], (MountedVolume{"list-home", "/home", "home", std::nullopt, true, false}));
  // An empty label counts as none: the volume is named after its mount point.
  EXPECT_EQ(volumes[2],
            (MountedVolume{"list-backup", "/media/backup", "backup", 1000, false, true}));
  EXPECT_EQ(volumes[3].name, "a b\ny");
  EXPECT_EQ(volumes[4].uuid, "list-over");
  EXPECT_EQ(volumes[5], (MountedVolume{"list-stick", "/run/media/ann/STICK", "STICK LABEL", 1000,
                                       false, false}));
  for (size_t i = 1; i < volumes.size(); ++i) EXPECT_FALSE(volumes[i].isBootVolume());

  std::vector<MountedVolume> external = VolumeEnumerator::externalVolumes(machine.source());
  EXPECT_EQ(external, std::vector<MountedVolume>(volumes.begin() + 1, volumes.end()));
}

TEST_F(VolumeEnumeratorTest, SortIsByMountPathBytesAndTheRootWithoutALabelIsNamedSlash) {
  FakeMachine machine;
  machine.table = {mount("/z", "ext4", "/dev/b"), mount("/a", "ext4", "/dev/c"),
                   mount("/", "ext4", "/dev/a"), mount("/B", "ext4", "/dev/d")};
  for (const char* device : {"/dev/a", "/dev/b", "/dev/c", "/dev/d"}) {
    machine.facts[device] = VolumeFacts{std::string("sort") + device, std::nullopt, 1, true};
  }
  std::vector<MountedVolume> volumes = VolumeEnumerator::mountedVolumes(machine.source());
  EXPECT_EQ(pathsOf(volumes), (std::vector<std::string>{"/", "/B", "/a", "/z"}));
  EXPECT_EQ(volumes[0].name, "/");
  EXPECT_TRUE(VolumeEnumerator::mountedVolumes(
                  VolumeSource{[] { return std::vector<MountEntry>{}; }, machine.source().facts,
                               machine.source().contents})
                  .empty());
}

TEST_F(VolumeEnumeratorTest, ProbesAreCachedPerVolumeAndTheBootVolumeIsNeverProbed) {
  FakeMachine machine = desktop("cache");
  VolumeEnumerator::warmProbes(machine.source());
  // Every listed volume but the root, once; the unreadable and the covered ones never.
  EXPECT_EQ(*machine.probes, 5);
  EXPECT_EQ(machine.probesOf->count("/"), 0u);
  EXPECT_EQ(machine.probesOf->count("/mnt/gone"), 0u);

  // Answers, unreadable roots included, come from the cache from now on.
  machine.roots["/run/media/ann/STICK"] = {"Backups.backupdb"};
  machine.roots["/mnt/over"] = {".MobileBackups"};
  std::vector<MountedVolume> volumes = VolumeEnumerator::mountedVolumes(machine.source());
  EXPECT_EQ(*machine.probes, 5);
  EXPECT_FALSE(volumes[5].isTimeMachineDestination);
  EXPECT_FALSE(volumes[4].isTimeMachineDestination);

  VolumeEnumerator::forgetProbes();
  volumes = VolumeEnumerator::mountedVolumes(machine.source());
  EXPECT_EQ(*machine.probes, 10);
  EXPECT_TRUE(volumes[5].isTimeMachineDestination);
  EXPECT_TRUE(volumes[4].isTimeMachineDestination);
  EXPECT_TRUE(volumes[2].isTimeMachineDestination);
  EXPECT_FALSE(volumes[1].isTimeMachineDestination);
}

TEST_F(VolumeEnumeratorTest, SwitchingProbesOffReportsNoBackupAndKeepsTheCache) {
  FakeMachine machine = desktop("switch");
  auto backupFlag = [&machine] {
    for (const MountedVolume& volume : VolumeEnumerator::mountedVolumes(machine.source())) {
      if (volume.mountPath == "/media/backup") return volume.isTimeMachineDestination;
    }
    ADD_FAILURE() << "no backup volume";
    return false;
  };
  VolumeEnumerator::setProbesVolumeRoots(false);
  EXPECT_FALSE(VolumeEnumerator::probesVolumeRoots());
  EXPECT_FALSE(backupFlag());
  EXPECT_EQ(*machine.probes, 0);

  VolumeEnumerator::setProbesVolumeRoots(true);
  EXPECT_TRUE(VolumeEnumerator::probesVolumeRoots());
  EXPECT_TRUE(backupFlag());
  int probed = *machine.probes;

  // Off again: no new probes, and even the cached answer is not reported.
  VolumeEnumerator::setProbesVolumeRoots(false);
  EXPECT_FALSE(backupFlag());
  VolumeEnumerator::setProbesVolumeRoots(true);
  EXPECT_TRUE(backupFlag());
  EXPECT_EQ(*machine.probes, probed);
}

TEST_F(VolumeEnumeratorTest, TheCacheLockIsNotHeldDuringAProbe) {
  FakeMachine machine = desktop("lock");
  VolumeSource source = machine.source();
  auto list = source.contents;
  // A probe that itself asks the cache would deadlock if the lock were held around it.
  source.contents = [list](const std::string& path) {
    (void)VolumeEnumerator::probesVolumeRoots();
    return list(path);
  };
  std::vector<std::thread> threads;
  std::vector<std::vector<MountedVolume>> results(4);
  for (size_t i = 0; i < results.size(); ++i) {
    threads.emplace_back([&, i] { results[i] = VolumeEnumerator::mountedVolumes(source); });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& result : results) EXPECT_EQ(result, results[0]);
  EXPECT_TRUE(results[0][2].isTimeMachineDestination);
}

TEST_F(VolumeEnumeratorTest, HiddenMountPaths) {
  const std::pair<const char*, bool> cases[] = {
      {"/proc", true},         {"/sys/fs/x", true},       {"/dev/shm", true},
      {"/run", true},          {"/run/user/1000", true},  {"/boot", true},
      {"/boot/efi", true},     {"/snap/core/1", true},    {"/run/media", false},
      {"/run/media/a", false}, {"/run/mediax", true},     {"/", false},
      {"/bootstrap", false},   {"/home/proc", false},     {"/devices", false},
      {"/snapshots", false},   {"/mnt/run/media", false},
  };
  for (const auto& [path, hidden] : cases) {
    EXPECT_EQ(VolumeEnumerator::isHiddenMountPath(path), hidden) << path;
  }
}

TEST_F(VolumeEnumeratorTest, ThisMachinesVolumes) {
  VolumeEnumerator::setProbesVolumeRoots(false);  // never wake this machine's disks
  std::vector<MountedVolume> volumes = VolumeEnumerator::mountedVolumes();
  ASSERT_FALSE(volumes.empty());
  EXPECT_EQ(volumes[0].mountPath, "/");
  std::set<std::string> uuids;
  for (size_t i = 0; i < volumes.size(); ++i) {
    const MountedVolume& volume = volumes[i];
    EXPECT_FALSE(volume.uuid.empty()) << volume.mountPath;
    EXPECT_TRUE(uuids.insert(volume.uuid).second) << volume.uuid;
    EXPECT_FALSE(volume.name.empty()) << volume.mountPath;
    EXPECT_FALSE(volume.isTimeMachineDestination);
    if (i > 0) {
      EXPECT_FALSE(VolumeEnumerator::isHiddenMountPath(volume.mountPath)) << volume.mountPath;
      EXPECT_LE(volumes[i - 1].mountPath, volume.mountPath);
    }
    EXPECT_GT(volume.totalBytes.value_or(1), 0);
  }
}

}  // namespace
}  // namespace tarvolin
