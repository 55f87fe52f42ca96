// The estimate from hand-made tables and counts, and from this machine.

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <set>

#include "tarvolin/scan/FilesystemEstimate.h"

namespace tarvolin {
namespace {

using platform::FileSystemStats;
using platform::MountEntry;

MountEntry mount(std::string mountPoint, std::string fsType, uint64_t device) {
  return MountEntry{"src", std::move(mountPoint), std::move(fsType), "rw", device, "/"};
}

TEST(FilesystemEstimateTest, SamplesCountEachLocalDeviceOnceAndNeverAskRemoteOnes) {
  std::vector<MountEntry> table = {
      mount("/", "ext4", 1),         mount("/proc", "proc", 2),         mount("/home", "xfs", 3),
      mount("/mnt/bind", "ext4", 1),  // the root's device again
      mount("/net", "nfs4", 4),      mount("/remote", "fuse.sshfs", 5), mount("/tmp", "tmpfs", 6),
      mount("/full", "ext4", 7),    // as many free slots as slots: nothing in use
      mount("/btrfs", "btrfs", 8),  // reports no slots at all
      mount("/gone", "ext4", 9),    // statvfs fails
      mount("/odd", "ext4", 10),    // more free than total
      mount("/again", "ext4", 11),  // covered by the next mount at the same path
      mount("/again", "ext4", 12),   mount("/later", "ext4", 9),  // device seen (at /gone),
                                                                  // although it gave no sample
  };
  std::map<std::string, FileSystemStats> counts = {
      {"/", {100, 1000, 400}}, {"/home", {100, 50, 20}}, {"/mnt/bind", {100, 1000, 400}},
      {"/tmp", {100, 10, 9}},  {"/full", {100, 10, 10}}, {"/btrfs", {100, 0, 0}},
      {"/odd", {100, 5, 6}},   {"/again", {100, 7, 4}},  {"/later", {100, 9, 0}},
      {"/proc", {0, 100, 1}},
  };
  std::set<std::string> asked;
  std::vector<VolumeSample> samples =
      FilesystemEstimate::samples(table, [&](const std::string& path) {
        asked.insert(path);
        auto found = counts.find(path);
        return found == counts.end() ? std::nullopt : std::optional(found->second);
      });
  EXPECT_EQ(samples,
            (std::vector<VolumeSample>{
                {"/", 600, true}, {"/home", 30, true}, {"/tmp", 1, true}, {"/again", 3, true}}));
  for (const char* never : {"/net", "/remote", "/proc", "/mnt/bind", "/later"}) {
    EXPECT_EQ(asked.count(never), 0u) << never;
  }
}

TEST(FilesystemEstimateTest, UsedInodesSumsOrIsAbsent) {
  using Samples = std::optional<std::vector<VolumeSample>>;
  const std::pair<Samples, std::optional<int64_t>> cases[] = {
      {std::nullopt, std::nullopt},
      {std::vector<VolumeSample>{}, std::nullopt},
      {std::vector<VolumeSample>{{"/", 0, true}, {"/a", 0, true}}, std::nullopt},
      {std::vector<VolumeSample>{{"/", 5, true}, {"/a", -5, true}}, std::nullopt},
      {std::vector<VolumeSample>{{"/", 1, true}}, 1},
      {std::vector<VolumeSample>{{"/", 600, true}, {"/home", 30, false}}, 630},
      {std::vector<VolumeSample>{{"/", int64_t{1} << 40, true}, {"/b", int64_t{1} << 40, true}},
       int64_t{1} << 41},
  };
  for (const auto& [samples, expected] : cases) {
    EXPECT_EQ(FilesystemEstimate::usedInodes([&samples = samples] { return samples; }), expected);
  }
}

TEST(FilesystemEstimateTest, ThisMachineAnswersQuicklyWithLocalSamples) {
  auto start = std::chrono::steady_clock::now();
  std::vector<VolumeSample> samples = FilesystemEstimate::mountedVolumes();
  auto elapsed = std::chrono::steady_clock::now() - start;
  // Generous for a sanitizer build on a busy machine; the release figure is far below.
  EXPECT_LT(elapsed, std::chrono::milliseconds(100));
  std::set<std::string> points;
  for (const VolumeSample& sample : samples) {
    EXPECT_GE(sample.usedInodes, 1) << sample.mountPoint;
    EXPECT_TRUE(sample.isLocal);
    EXPECT_TRUE(points.insert(sample.mountPoint).second) << sample.mountPoint;
    EXPECT_NE(sample.mountPoint, "/proc");
  }
  std::optional<int64_t> estimate = FilesystemEstimate::usedInodes();
  EXPECT_EQ(estimate.has_value(), !samples.empty());
}

}  // namespace
}  // namespace tarvolin
