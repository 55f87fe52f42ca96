#include "tarvolin/scan/FilesystemEstimate.h"

#include <unordered_set>

namespace tarvolin::FilesystemEstimate {

std::vector<VolumeSample> mountedVolumes() {
  return samples(platform::readMountTable(), platform::fileSystemStats);
}

std::vector<VolumeSample> samples(const std::vector<platform::MountEntry>& table,
                                  const StatsSource& stats) {
  std::vector<VolumeSample> result;
  std::unordered_set<uint64_t> seenDevices;
  for (const platform::MountEntry& entry : platform::visibleMounts(table)) {
    if (platform::fileSystemKind(entry.fsType) != platform::FileSystemKind::local) continue;
    if (!seenDevices.insert(entry.deviceNumber).second) continue;
    std::optional<platform::FileSystemStats> counts = stats(entry.mountPoint);
    if (!counts || counts->freeFiles >= counts->files) continue;
    auto used = static_cast<int64_t>(counts->files - counts->freeFiles);
    result.push_back(VolumeSample{entry.mountPoint, used, true});
  }
  return result;
}

std::optional<int64_t> usedInodes(const SampleSource& now) {
  std::optional<std::vector<VolumeSample>> samples = now();
  if (!samples) return std::nullopt;
  int64_t sum = 0;
  for (const VolumeSample& sample : *samples) sum += sample.usedInodes;
  if (sum < 1) return std::nullopt;
  return sum;
}

std::optional<int64_t> usedInodes() {
  return usedInodes([] { return std::optional(mountedVolumes()); });
}

}  // namespace tarvolin::FilesystemEstimate
