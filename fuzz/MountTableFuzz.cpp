// Any bytes as mountinfo text: the table is read without crashing, every entry it gives has a
// mount point, and what is built on the table (scan pruning, the volume list, the inode samples)
// keeps its promises on whatever the entries hold.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/platform/MountTable.h"
#include "tarvolin/scan/FilesystemEstimate.h"
#include "tarvolin/scan/ScanPolicy.h"
#include "tarvolin/scan/VolumeEnumerator.h"

using namespace tarvolin;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<platform::MountEntry> table = platform::parseMountTable(text);
  for (const platform::MountEntry& entry : table) {
    if (entry.mountPoint.empty()) __builtin_trap();
  }

  // Pruned paths lie strictly below the root, sorted and unique.
  for (std::string_view root : {std::string_view("/"), std::string_view("/home")}) {
    std::vector<std::string> pruned = ScanPolicy::mountExclusions(root, table);
    if (!std::is_sorted(pruned.begin(), pruned.end())) __builtin_trap();
    if (std::adjacent_find(pruned.begin(), pruned.end()) != pruned.end()) __builtin_trap();
    std::string prefix = root == "/" ? "/" : std::string(root) + "/";
    for (const std::string& path : pruned) {
      if (!path.starts_with(prefix) || path.size() <= prefix.size()) __builtin_trap();
    }
  }

  // Every mount that may be a volume gets facts made from its own fields; none is probed.
  VolumeEnumerator::VolumeSource source{
      [&table] { return table; },
      [](const platform::MountEntry& entry) -> std::optional<VolumeEnumerator::VolumeFacts> {
        if (entry.options.empty()) return std::nullopt;
        return VolumeEnumerator::VolumeFacts{entry.root, entry.options, 1, false};
      },
      [](const std::string&) { return std::optional<std::vector<std::string>>(); }};
  std::vector<MountedVolume> volumes = VolumeEnumerator::mountedVolumes(source);
  for (size_t i = 0; i < volumes.size(); ++i) {
    if (volumes[i].uuid.empty() || volumes[i].name.empty()) __builtin_trap();
    if (i > 0 && volumes[i].isBootVolume()) __builtin_trap();
    if (i > 1 && volumes[i - 1].mountPath > volumes[i].mountPath) __builtin_trap();
    for (size_t j = 0; j < i; ++j) {
      if (volumes[j].uuid == volumes[i].uuid) __builtin_trap();
    }
  }

  std::vector<VolumeSample> samples =
      FilesystemEstimate::samples(table, [](const std::string& path) {
        return std::optional(platform::FileSystemStats{0, path.size() * 3, path.size()});
      });
  for (const VolumeSample& sample : samples) {
    if (sample.usedInodes < 1) __builtin_trap();
  }
  return 0;
}
