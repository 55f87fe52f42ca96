#include "tarvolin/platform/BlockDevices.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <system_error>

#include "tarvolin/platform/MountTable.h"
#include "tarvolin/platform/detail/LibMount.h"

namespace tarvolin::platform {

namespace {

namespace fs = std::filesystem;

// A device's links nest only a few levels (a partition in an encrypted volume in a RAID);
// the bound keeps a malformed /sys from looping.
constexpr int kMaxSlaveDepth = 8;

// The device number a block device node stands for, when `path` is one.
std::optional<uint64_t> blockDeviceNumber(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0 || !S_ISBLK(info.st_mode)) return std::nullopt;
  return static_cast<uint64_t>(info.st_rdev);
}

// udev writes bytes it will not put in a link name as "\xHH" (a blank in a label is "\x20").
std::string decodeUdevName(std::string_view name) {
  std::string decoded;
  decoded.reserve(name.size());
  auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  for (size_t i = 0; i < name.size(); ++i) {
    if (name[i] == '\\' && i + 3 < name.size() && name[i + 1] == 'x' && hex(name[i + 2]) >= 0 &&
        hex(name[i + 3]) >= 0) {
      decoded.push_back(static_cast<char>(hex(name[i + 2]) * 16 + hex(name[i + 3])));
      i += 3;
    } else {
      decoded.push_back(name[i]);
    }
  }
  return decoded;
}

// The name of the first link in `folder` that leads to the block device `device`.
std::optional<std::string> linkNameFor(const char* folder, uint64_t device) {
  std::error_code error;
  fs::directory_iterator it(folder, error);
  if (error) return std::nullopt;
  for (; it != fs::directory_iterator(); it.increment(error)) {
    if (error) return std::nullopt;
    if (blockDeviceNumber(it->path().string()) == device) {
      return decodeUdevName(it->path().filename().string());
    }
  }
  return std::nullopt;
}

struct ProbeDeleter {
  const detail::LibBlkid* api;
  void operator()(blkid_struct_probe* probe) const { api->blkid_free_probe(probe); }
};

std::optional<std::string> probeValue(const detail::LibBlkid& api, blkid_probe probe,
                                      const char* name) {
  const char* data = nullptr;
  size_t length = 0;
  if (api.blkid_probe_lookup_value(probe, name, &data, &length) != 0 || data == nullptr) {
    return std::nullopt;
  }
  std::string value(data, length);
  while (!value.empty() && value.back() == '\0') value.pop_back();  // length counts the NUL
  if (value.empty()) return std::nullopt;
  return value;
}

// Reads the superblock. Fails without read access to the device (an ordinary user).
std::optional<BlockDeviceIdentity> probeDevice(const std::string& devicePath) {
  const detail::LibBlkid* api = detail::libBlkid();
  if (api == nullptr) return std::nullopt;
  std::unique_ptr<blkid_struct_probe, ProbeDeleter> probe(
      api->blkid_new_probe_from_filename(devicePath.c_str()), ProbeDeleter{api});
  if (!probe) return std::nullopt;
  api->blkid_probe_enable_superblocks(probe.get(), 1);
  api->blkid_probe_set_superblocks_flags(probe.get(), BLKID_SUBLKS_UUID | BLKID_SUBLKS_LABEL);
  if (api->blkid_do_safeprobe(probe.get()) != 0) return BlockDeviceIdentity{};
  return BlockDeviceIdentity{probeValue(*api, probe.get(), "UUID"),
                             probeValue(*api, probe.get(), "LABEL")};
}

struct CacheDeleter {
  const detail::LibBlkid* api;
  void operator()(blkid_struct_cache* cache) const { api->blkid_put_cache(cache); }
};

// What libblkid's cache file remembers of the device, without probing it again (so nothing
// changes and nothing is written back).
BlockDeviceIdentity cachedIdentity(const std::string& devicePath) {
  const detail::LibBlkid* api = detail::libBlkid();
  if (api == nullptr) return {};
  blkid_cache raw = nullptr;
  if (api->blkid_get_cache(&raw, nullptr) != 0 || raw == nullptr) return {};
  std::unique_ptr<blkid_struct_cache, CacheDeleter> cache(raw, CacheDeleter{api});
  blkid_dev device = api->blkid_get_dev(cache.get(), devicePath.c_str(), BLKID_DEV_FIND);
  if (device == nullptr) return {};
  BlockDeviceIdentity identity;
  blkid_tag_iterate tags = api->blkid_tag_iterate_begin(device);
  const char* type = nullptr;
  const char* value = nullptr;
  while (tags != nullptr && api->blkid_tag_next(tags, &type, &value) == 0) {
    if (value == nullptr || value[0] == '\0') continue;
    if (std::string_view(type) == "UUID") identity.uuid = value;
    if (std::string_view(type) == "LABEL") identity.label = value;
  }
  if (tags != nullptr) api->blkid_tag_iterate_end(tags);
  return identity;
}

std::string sysBlockPath(uint64_t device) {
  return "/sys/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device));
}

// The first line of a small /sys file, empty when unreadable.
std::string readSysLine(const fs::path& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

// The device node of a block device number, from the kernel's own name for it.
std::optional<std::string> devicePathFor(uint64_t device) {
  std::ifstream in(sysBlockPath(device) + "/uevent");
  std::string line;
  while (std::getline(in, line)) {
    if (line.starts_with("DEVNAME=")) {
      std::string path = "/dev/" + line.substr(8);
      if (blockDeviceNumber(path) == device) return path;
    }
  }
  const detail::LibBlkid* api = detail::libBlkid();
  char* name = api != nullptr ? api->blkid_devno_to_devname(static_cast<dev_t>(device)) : nullptr;
  if (name != nullptr) {
    std::string path(name);
    std::free(name);
    return path;
  }
  return std::nullopt;
}

// `diskFolder` is a whole disk's /sys folder (or a partition's, which is looked through).
bool isInternalDisk(const fs::path& folder, int depth) {
  std::error_code error;
  fs::path disk = fs::canonical(folder, error);
  if (error) return false;
  if (fs::exists(disk / "partition", error)) disk = disk.parent_path();
  if (disk.string().find("/usb") != std::string::npos) return false;
  if (readSysLine(disk / "removable") != "0") return false;
  // A mapped device (encryption, LVM, RAID) is as internal as every disk beneath it.
  fs::directory_iterator slaves(disk / "slaves", error);
  if (error) return true;
  for (; slaves != fs::directory_iterator(); slaves.increment(error)) {
    if (error || depth >= kMaxSlaveDepth) return false;
    if (!isInternalDisk(slaves->path(), depth + 1)) return false;
  }
  return !error;
}

}  // namespace

bool isBlockDevice(const std::string& path) { return blockDeviceNumber(path).has_value(); }

BlockDeviceIdentity identifyBlockDevice(const std::string& devicePath) {
  std::optional<uint64_t> device = blockDeviceNumber(devicePath);
  if (!device) return {};
  // udev names every file system with a UUID and every one with a label, so the links, when
  // they know the UUID, know the label too.
  BlockDeviceIdentity identity{linkNameFor("/dev/disk/by-uuid", *device),
                               linkNameFor("/dev/disk/by-label", *device)};
  if (identity.uuid) return identity;
  if (std::optional<BlockDeviceIdentity> probed = probeDevice(devicePath)) return *probed;
  BlockDeviceIdentity cached = cachedIdentity(devicePath);
  if (!identity.label) identity.label = cached.label;
  identity.uuid = cached.uuid;
  return identity;
}

std::optional<std::string> fileSystemUUID(uint64_t device) {
  std::optional<std::string> devicePath;
  if (major(device) != 0) {
    devicePath = devicePathFor(device);
  } else {
    // btrfs and the like number their files' device themselves; the table names the disk.
    for (const MountEntry& entry : readMountTable()) {
      if (entry.deviceNumber == device && isBlockDevice(entry.source)) {
        devicePath = entry.source;
        break;
      }
    }
  }
  if (!devicePath) return std::nullopt;
  return identifyBlockDevice(*devicePath).uuid;
}

std::optional<std::string> fileSystemUUID(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return std::nullopt;
  return fileSystemUUID(static_cast<uint64_t>(info.st_dev));
}

bool isInternalBlockDevice(const std::string& devicePath) {
  std::optional<uint64_t> device = blockDeviceNumber(devicePath);
  return device && isInternalDisk(sysBlockPath(*device), 0);
}

}  // namespace tarvolin::platform
