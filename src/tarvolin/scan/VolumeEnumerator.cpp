#include "tarvolin/scan/VolumeEnumerator.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "tarvolin/platform/BlockDevices.h"

namespace tarvolin::VolumeEnumerator {

namespace {

// Mounts below these belong to the system: kernel views, device nodes, runtime state, the boot
// loader's files and the package manager's images.
constexpr std::array<std::string_view, 6> kHiddenRoots = {"/proc", "/sys",  "/dev",
                                                          "/run",  "/boot", "/snap"};
// Where desktops mount removable media for the user: shown although it lies below /run.
constexpr std::string_view kUserMediaRoot = "/run/media";

bool isAtOrBelow(std::string_view path, std::string_view folder) {
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

// The process-wide probe answers, keyed by UUID, "|" and mount path.
class ProbeCache {
 public:
  static ProbeCache& shared() {
    static ProbeCache cache;
    return cache;
  }

  bool mayProbe() {
    std::lock_guard guard(lock_);
    return mayProbe_;
  }
  void setMayProbe(bool allowed) {
    std::lock_guard guard(lock_);
    mayProbe_ = allowed;
  }
  void forget() {
    std::lock_guard guard(lock_);
    answers_.clear();
  }

  /// The cached answer for `key`, or `compute`'s, run without the lock and then stored.
  template <typename Compute>
  bool value(const std::string& key, Compute&& compute) {
    {
      std::lock_guard guard(lock_);
      if (auto found = answers_.find(key); found != answers_.end()) return found->second;
    }
    bool answer = compute();
    std::lock_guard guard(lock_);
    answers_[key] = answer;
    return answer;
  }

 private:
  std::mutex lock_;
  std::unordered_map<std::string, bool> answers_;
  bool mayProbe_ = true;
};

// A mount that could be a volume: the root, or a local file system on a named device.
bool mayBeVolume(const platform::MountEntry& entry) {
  if (entry.mountPoint == "/") return true;
  if (isHiddenMountPath(entry.mountPoint)) return false;
  return entry.source.starts_with("/dev/") &&
         platform::fileSystemKind(entry.fsType) == platform::FileSystemKind::local;
}

std::string lastComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  if (path == "/") return "/";
  size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::optional<VolumeFacts> liveFacts(const platform::MountEntry& entry) {
  bool onDevice = platform::isBlockDevice(entry.source);
  if (!onDevice && entry.mountPoint != "/") return std::nullopt;
  std::optional<platform::FileSystemStats> stats = platform::fileSystemStats(entry.mountPoint);
  if (!stats) return std::nullopt;  // gone since the table was read, or not ours to read
  VolumeFacts facts;
  if (onDevice) {
    platform::BlockDeviceIdentity identity = platform::identifyBlockDevice(entry.source);
    facts.uuid = identity.uuid.value_or("");
    facts.label = std::move(identity.label);
    facts.isInternal = platform::isInternalBlockDevice(entry.source);
  }
  if (facts.uuid.empty()) facts.uuid = platform::fileSystemIdHex(entry.mountPoint).value_or("");
  if (stats->totalBytes > 0) facts.totalBytes = static_cast<int64_t>(stats->totalBytes);
  return facts;
}

}  // namespace

VolumeSource VolumeSource::live() {
  return VolumeSource{platform::readMountTable, liveFacts, ScanPolicy::listDirectory};
}

bool isHiddenMountPath(std::string_view mountPath) {
  if (isAtOrBelow(mountPath, kUserMediaRoot)) return false;
  return std::any_of(kHiddenRoots.begin(), kHiddenRoots.end(),
                     [mountPath](std::string_view root) { return isAtOrBelow(mountPath, root); });
}

std::vector<MountedVolume> mountedVolumes(const VolumeSource& source) {
  std::vector<platform::MountEntry> table = platform::visibleMounts(source.mountTable());
  // The root is taken first, so a bind mount of its file system listed earlier cannot hide it.
  std::stable_partition(table.begin(), table.end(),
                        [](const platform::MountEntry& entry) { return entry.mountPoint == "/"; });
  ProbeCache& cache = ProbeCache::shared();
  std::unordered_set<std::string> seen;
  std::vector<MountedVolume> volumes;
  for (const platform::MountEntry& entry : table) {
    if (!mayBeVolume(entry)) continue;
    std::optional<VolumeFacts> facts = source.facts(entry);
    if (!facts || facts->uuid.empty()) continue;
    if (!seen.insert(facts->uuid).second) continue;
    MountedVolume volume{
        facts->uuid,
        entry.mountPoint,
        facts->label && !facts->label->empty() ? *facts->label : lastComponent(entry.mountPoint),
        facts->totalBytes,
        facts->isInternal,
        false};
    if (!volume.isBootVolume() && cache.mayProbe()) {
      volume.isTimeMachineDestination =
          cache.value(volume.uuid + "|" + volume.mountPath, [&source, &volume] {
            return ScanPolicy::isTimeMachineDestination(volume.mountPath, source.contents);
          });
    }
    volumes.push_back(std::move(volume));
  }
  std::stable_sort(volumes.begin(), volumes.end(),
                   [](const MountedVolume& a, const MountedVolume& b) {
                     if (a.isBootVolume() != b.isBootVolume()) return a.isBootVolume();
                     return a.mountPath < b.mountPath;
                   });
  return volumes;
}

std::vector<MountedVolume> externalVolumes(const VolumeSource& source) {
  std::vector<MountedVolume> volumes = mountedVolumes(source);
  std::erase_if(volumes, [](const MountedVolume& volume) { return volume.isBootVolume(); });
  return volumes;
}

bool probesVolumeRoots() { return ProbeCache::shared().mayProbe(); }

void setProbesVolumeRoots(bool allowed) { ProbeCache::shared().setMayProbe(allowed); }

void forgetProbes() { ProbeCache::shared().forget(); }

void warmProbes(const VolumeSource& source) { (void)mountedVolumes(source); }

}  // namespace tarvolin::VolumeEnumerator
