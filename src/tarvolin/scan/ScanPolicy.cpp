#include "tarvolin/scan/ScanPolicy.h"

#include <algorithm>
#include <array>
#include <system_error>

#include "tarvolin/scan/detail/TextCompare.h"

namespace tarvolin {

namespace {

constexpr std::array<std::string_view, 7> kStores = {
    "Backups.backupdb",        ".MobileBackups",  ".Spotlight-V100", ".fseventsd",
    ".DocumentRevisions-V100", ".TemporaryItems", ".Trashes"};

// Suffixes of names that are stores themselves.
constexpr std::array<std::string_view, 2> kStoreSuffixes = {".backupbundle", ".sparsebundle"};
constexpr std::string_view kSnapshotSuffix = ".backup";
constexpr std::string_view kNoIndexSuffix = ".noindex";
// Where btrfs snapshot tools keep a file system's snapshots, at its top level, as the last
// component of a path.
constexpr std::string_view kBtrfsSnapshots = "/.snapshots";

constexpr std::array<std::string_view, 9> kPrivateFolders = {
    "Desktop", "Documents", "Downloads",    "Library", "Movies",
    "Music",   "Pictures",  "Applications", ".Trash"};

constexpr std::array<std::string_view, 31> kProtectedRelativePaths = {
    "Desktop",
    "Documents",
    "Downloads",
    "Pictures",
    "Music",
    "Movies",
    ".Trash",
    "Library/Mobile Documents",
    "Library/CloudStorage",
    "Library/Containers",
    "Library/Group Containers",
    "Library/Daemon Containers",
    "Library/Mail",
    "Library/Messages",
    "Library/Safari",
    "Library/Cookies",
    "Library/Suggestions",
    "Library/Application Support/Tarvolin",
    "Library/Application Support/com.apple.TCC",
    "Library/Application Support/AddressBook",
    "Library/Application Support/CallHistoryDB",
    "Library/Application Support/CallHistoryTransactions",
    "Library/Application Support/Knowledge",
    "Library/Biome",
    "Library/HomeKit",
    "Library/Accounts",
    "Library/Calendars",
    "Library/Reminders",
    "Library/PersonalizationPortrait",
    "Library/IdentityServices",
    "Library/Metadata/CoreSpotlight",
};

// Calls `body` with each non-empty "/"-separated piece of `path` until it returns true.
template <typename Body>
bool anyPiece(std::string_view path, Body&& body) {
  size_t at = 0;
  while (at < path.size()) {
    size_t slash = path.find('/', at);
    if (slash == std::string_view::npos) slash = path.size();
    if (slash > at && body(path.substr(at, slash - at))) return true;
    at = slash + 1;
  }
  return false;
}

// The snapshot test on a name already in comparable form.
bool isSnapshotText(std::string_view text) {
  if (!detail::hasSuffixAsText(text, kSnapshotSuffix)) return false;
  std::string_view stamp = text.substr(0, text.size() - kSnapshotSuffix.size());
  // Seventeen characters that are each one ASCII scalar are seventeen ASCII bytes; any other
  // byte is part of a character that fails the digit and dash tests anyway.
  if (stamp.size() != 17) return false;
  for (size_t i = 0; i < stamp.size(); ++i) {
    char c = stamp[i];
    if (i == 4 || i == 7 || i == 10) {
      if (c != '-') return false;
    } else if (c < '0' || c > '9') {
      return false;
    }
  }
  return true;
}

// Store test on one component in comparable form.
bool isStoreComponent(std::string_view text) {
  for (std::string_view store : kStores) {
    if (text == store) return true;
  }
  for (std::string_view suffix : kStoreSuffixes) {
    if (detail::hasSuffixAsText(text, suffix)) return true;
  }
  return isSnapshotText(text);
}

// Membership as text: byte-equal first, then canonical equivalence for non-ASCII strings.
bool containsAsText(const ScanPolicy::PathSet& set, std::string_view path) {
  if (set.contains(std::string(path))) return true;
  std::string scratch;
  std::string_view text = detail::comparableText(path, scratch);
  bool pathAscii = text.data() == path.data();
  std::string entryScratch;
  for (const std::string& entry : set) {
    if (pathAscii && detail::isAscii(entry)) continue;  // already compared above
    if (detail::comparableText(entry, entryScratch) == text) return true;
  }
  return false;
}

// `path` equals a member of `set` or lies below one, as text.
bool isAtOrBelowAny(const ScanPolicy::PathSet& set, std::string_view path) {
  std::string scratch;
  std::string_view text = detail::comparableText(path, scratch);
  std::string entryScratch;
  std::string withSlash;
  for (const std::string& entry : set) {
    std::string_view e = detail::comparableText(entry, entryScratch);
    if (text == e) return true;
    withSlash.assign(e);
    withSlash.push_back('/');
    if (detail::hasPrefixAsText(text, withSlash)) return true;
  }
  return false;
}

std::string withoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

bool ScanPolicy::shouldDescend(std::string_view intoAbsolutePath) const {
  if (containsAsText(excluded, intoAbsolutePath)) return false;
  if (isNoIndexDirectory(intoAbsolutePath)) return false;
  if (isBackupOrSystemStore(intoAbsolutePath)) return false;
  return true;
}

bool ScanPolicy::isExcluded(std::string_view absolutePath) const {
  if (isNoIndexDirectory(absolutePath)) return true;
  return isAtOrBelowAny(excluded, absolutePath);
}

ScanPolicy ScanPolicy::adding(const std::vector<std::string>& excludedPaths) const {
  ScanPolicy copy = *this;
  copy.excluded.insert(excludedPaths.begin(), excludedPaths.end());
  return copy;
}

const ScanPolicy::PathSet& ScanPolicy::defaultExclusions() {
  static const PathSet set = {"/System/Volumes/Data", "/System/Volumes/Preboot",
                              "/System/Volumes/VM", "/System/Volumes/Update", "/dev", "/proc",
                              "/.vol", "/private/var/vm",
                              // The Linux pseudo file systems.
                              "/sys", "/run"};
  return set;
}

const ScanPolicy::PathSet& ScanPolicy::systemFolders() {
  static const PathSet set = {"/System", "/Library", "/usr",   "/bin",    "/sbin",
                              "/opt",    "/private", "/cores", "/Network"};
  return set;
}

ScanPolicy ScanPolicy::fullDisk(std::string_view homeDirectory, bool includingSystemFolders,
                                const DirectoryContents& contents) {
  ScanPolicy policy{defaultExclusions()};
  PathSet others = otherUserPrivateFolders("/Users", homeDirectory, contents);
  policy.excluded.insert(others.begin(), others.end());
  if (!includingSystemFolders) {
    policy.excluded.insert(systemFolders().begin(), systemFolders().end());
  }
  return policy;
}

ScanPolicy ScanPolicy::excludingTCCProtectedPaths(const std::filesystem::path& homeDirectory) {
  ScanPolicy policy{defaultExclusions()};
  PathSet protectedPaths = tccProtectedRelativePaths(homeDirectory);
  policy.excluded.insert(protectedPaths.begin(), protectedPaths.end());
  policy.excluded.insert("/Volumes");
  return policy;
}

ScanPolicy::PathSet ScanPolicy::tccProtectedRelativePaths(
    const std::filesystem::path& homeDirectory) {
  // The home folder's path as a string, without a trailing "/" (except "/" itself).
  std::string home = withoutTrailingSlashes(homeDirectory.string());
  PathSet set;
  for (std::string_view relative : kProtectedRelativePaths) {
    set.insert(home + "/" + std::string(relative));
  }
  return set;
}

ScanPolicy::PathSet ScanPolicy::otherUserPrivateFolders(std::string_view usersDirectory,
                                                        std::string_view home,
                                                        const DirectoryContents& contents) {
  std::optional<std::vector<std::string>> names = contents(std::string(usersDirectory));
  if (!names) return {};
  // Standardised: "." and ".." resolved, repeated and trailing separators removed.
  std::string standardHome =
      withoutTrailingSlashes(std::filesystem::path(std::string(home)).lexically_normal().string());
  PathSet set;
  for (const std::string& name : *names) {
    if (name.starts_with(".") || name == "Shared") continue;
    std::string folder = std::string(usersDirectory) + "/" + name;
    std::string a, b;
    if (detail::comparableText(folder, a) == detail::comparableText(standardHome, b)) continue;
    for (std::string_view privateFolder : kPrivateFolders) {
      set.insert(folder + "/" + std::string(privateFolder));
    }
  }
  return set;
}

std::vector<std::string> ScanPolicy::mountExclusions(
    std::string_view root, const std::vector<platform::MountEntry>& mountTable) {
  while (!root.empty() && root.back() == '/') root.remove_suffix(1);
  // Strictly below the root, which the scanner spells without a trailing "/" ("" for "/").
  auto isBelowRoot = [root](std::string_view path) {
    return path.size() > root.size() + 1 && path.starts_with(root) && path[root.size()] == '/';
  };
  std::vector<std::string> paths;
  for (const platform::MountEntry& entry : mountTable) {
    std::string_view mountPoint = entry.mountPoint;
    bool isSnapshotMount = entry.fsType == "btrfs" && mountPoint.ends_with(kBtrfsSnapshots);
    if (platform::fileSystemKind(entry.fsType) != platform::FileSystemKind::local ||
        isSnapshotMount) {
      if (isBelowRoot(mountPoint)) paths.emplace_back(mountPoint);
    } else if (entry.fsType == "btrfs") {
      // Appended piece by piece: GCC 12 at -O3 takes a chain of operator+ for an overlapping copy.
      std::string snapshots(mountPoint == "/" ? "" : mountPoint);
      snapshots.append(kBtrfsSnapshots);
      if (isBelowRoot(snapshots)) paths.push_back(std::move(snapshots));
    }
  }
  std::sort(paths.begin(), paths.end());
  paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
  return paths;
}

std::vector<std::string> ScanPolicy::mountExclusions(std::string_view root) {
  return mountExclusions(root, platform::readMountTable());
}

bool ScanPolicy::isSystemPath(std::string_view path) {
  return isAtOrBelowAny(systemFolders(), path);
}

bool ScanPolicy::isNoIndexDirectory(std::string_view path) {
  std::string scratch;
  std::string_view text = detail::comparableText(path, scratch);
  return anyPiece(
      text, [](std::string_view piece) { return detail::hasSuffixAsText(piece, kNoIndexSuffix); });
}

const std::vector<std::string_view>& ScanPolicy::descentBlockingEndings() {
  static const std::vector<std::string_view> endings = [] {
    std::vector<std::string_view> all(kStores.begin(), kStores.end());
    all.insert(all.end(), kStoreSuffixes.begin(), kStoreSuffixes.end());
    all.push_back(kSnapshotSuffix);
    all.push_back(kNoIndexSuffix);
    return all;
  }();
  return endings;
}

bool ScanPolicy::isBackupOrSystemStore(std::string_view path) {
  std::string scratch;
  std::string_view text = detail::comparableText(path, scratch);
  // A leading "/" is a component of its own, but "/" is never a store, so the non-empty pieces
  // between separators are the components that matter.
  return anyPiece(text, isStoreComponent);
}

bool ScanPolicy::isTimeMachineSnapshot(std::string_view name) {
  std::string scratch;
  return isSnapshotText(detail::comparableText(name, scratch));
}

bool ScanPolicy::isTimeMachineDestination(const std::vector<std::string>& rootEntries) {
  return std::any_of(rootEntries.begin(), rootEntries.end(), [](const std::string& entry) {
    std::string scratch;
    std::string_view text = detail::comparableText(entry, scratch);
    return text == "Backups.backupdb" || text == ".MobileBackups" || isSnapshotText(text);
  });
}

bool ScanPolicy::isTimeMachineDestination(std::string_view mountPath,
                                          const DirectoryContents& contents) {
  std::optional<std::vector<std::string>> names = contents(std::string(mountPath));
  return names && isTimeMachineDestination(*names);
}

std::optional<std::vector<std::string>> ScanPolicy::listDirectory(const std::string& path) {
  std::error_code error;
  std::filesystem::directory_iterator it(path, error);
  if (error) return std::nullopt;
  std::vector<std::string> names;
  for (; it != std::filesystem::directory_iterator(); it.increment(error)) {
    if (error) return std::nullopt;
    names.push_back(it->path().filename().string());
  }
  if (error) return std::nullopt;
  return names;
}

}  // namespace tarvolin
