#include "tarvolin/platform/MountTable.h"

#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <unordered_map>

#include "tarvolin/platform/detail/LibMount.h"

namespace tarvolin::platform {

namespace {

// File systems served over a network. statvfs or a directory listing waits for the server.
constexpr std::array<std::string_view, 22> kNetworkTypes = {
    "nfs",   "nfs4",  "cifs",  "smb3",   "smbfs",     "9p",     "ceph", "glusterfs",
    "davfs", "afs",   "ncpfs", "coda",   "lustre",    "beegfs", "gpfs", "orangefs",
    "pvfs2", "sshfs", "ftpfs", "vboxsf", "curlftpfs", "shfs"};

// Kernel views without user files: process and device tables, control groups, tracing, the
// security modules' files, firmware variables and the like.
constexpr std::array<std::string_view, 27> kPseudoTypes = {
    "proc",     "sysfs",       "cgroup",    "cgroup2",  "tracefs",    "debugfs", "devpts",
    "devtmpfs", "mqueue",      "bpf",       "autofs",   "securityfs", "pstore",  "configfs",
    "fusectl",  "binfmt_misc", "hugetlbfs", "efivarfs", "rpc_pipefs", "nsfs",    "selinuxfs",
    "nfsd",     "binder",      "ipathfs",   "usbfs",    "resctrl",    "smackfs"};

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};

struct TableDeleter {
  const detail::LibMount* api;
  void operator()(libmnt_table* table) const { api->mnt_unref_table(table); }
};
struct IterDeleter {
  const detail::LibMount* api;
  void operator()(libmnt_iter* iter) const { api->mnt_free_iter(iter); }
};
using Table = std::unique_ptr<libmnt_table, TableDeleter>;

std::string text(const char* value) { return value == nullptr ? std::string() : value; }

// A malformed line is skipped, not the whole table.
int skipBadLine(libmnt_table*, const char*, int) { return 1; }

Table newTable(const detail::LibMount& api) {
  Table table(api.mnt_new_table(), TableDeleter{&api});
  if (table) api.mnt_table_set_parser_errcb(table.get(), skipBadLine);
  return table;
}

std::vector<MountEntry> entriesOf(const detail::LibMount& api, libmnt_table* table) {
  std::vector<MountEntry> entries;
  std::unique_ptr<libmnt_iter, IterDeleter> iter(api.mnt_new_iter(MNT_ITER_FORWARD),
                                                 IterDeleter{&api});
  if (!iter) return entries;
  libmnt_fs* fs = nullptr;
  while (api.mnt_table_next_fs(table, iter.get(), &fs) == 0) {
    const char* target = api.mnt_fs_get_target(fs);
    if (target == nullptr || target[0] == '\0') continue;
    entries.push_back(MountEntry{text(api.mnt_fs_get_source(fs)), target,
                                 text(api.mnt_fs_get_fstype(fs)), text(api.mnt_fs_get_options(fs)),
                                 static_cast<uint64_t>(api.mnt_fs_get_devno(fs)),
                                 text(api.mnt_fs_get_root(fs))});
  }
  return entries;
}

}  // namespace

FileSystemKind fileSystemKind(std::string_view fsType) {
  if (fsType == "fuse" || fsType.starts_with("fuse.")) return FileSystemKind::fuse;
  auto has = [fsType](const auto& list) {
    return std::find(list.begin(), list.end(), fsType) != list.end();
  };
  if (has(kNetworkTypes)) return FileSystemKind::network;
  if (has(kPseudoTypes)) return FileSystemKind::pseudo;
  return FileSystemKind::local;
}

std::vector<MountEntry> readMountTable() {
  const detail::LibMount* api = detail::libMount();
  if (api == nullptr) return {};
  Table table = newTable(*api);
  if (!table || api->mnt_table_parse_file(table.get(), "/proc/self/mountinfo") != 0) return {};
  return entriesOf(*api, table.get());
}

std::vector<MountEntry> parseMountTable(std::string_view mountinfo) {
  const detail::LibMount* api = detail::libMount();
  if (api == nullptr || mountinfo.empty()) return {};  // fmemopen refuses an empty buffer
  // libmount reads streams only; the buffer is read, never written, despite the mode's cast.
  std::unique_ptr<FILE, FileCloser> stream(
      fmemopen(const_cast<char*>(mountinfo.data()), mountinfo.size(), "r"));
  Table table = newTable(*api);
  if (!stream || !table) return {};
  if (api->mnt_table_parse_stream(table.get(), stream.get(), "mountinfo") != 0) return {};
  return entriesOf(*api, table.get());
}

std::vector<MountEntry> visibleMounts(std::vector<MountEntry> table) {
  std::unordered_map<std::string_view, size_t> last;
  for (size_t i = 0; i < table.size(); ++i) last[table[i].mountPoint] = i;
  std::vector<bool> keep(table.size(), false);
  for (const auto& [path, index] : last) keep[index] = true;
  std::vector<MountEntry> visible;
  visible.reserve(last.size());
  for (size_t i = 0; i < table.size(); ++i) {
    if (keep[i]) visible.push_back(std::move(table[i]));
  }
  return visible;
}

std::optional<FileSystemStats> fileSystemStats(const std::string& path) {
  struct statvfs info {};
  if (statvfs(path.c_str(), &info) != 0) return std::nullopt;
  return FileSystemStats{static_cast<uint64_t>(info.f_blocks) * info.f_frsize,
                         static_cast<uint64_t>(info.f_files), static_cast<uint64_t>(info.f_ffree)};
}

std::optional<std::string> fileSystemIdHex(const std::string& path) {
  struct statfs info {};
  if (statfs(path.c_str(), &info) != 0) return std::nullopt;
  auto high = static_cast<uint32_t>(info.f_fsid.__val[0]);
  auto low = static_cast<uint32_t>(info.f_fsid.__val[1]);
  if (high == 0 && low == 0) return std::nullopt;
  std::array<char, 17> digits{};
  std::snprintf(digits.data(), digits.size(), "%08x%08x", high, low);
  return std::string(digits.data());
}

}  // namespace tarvolin::platform
