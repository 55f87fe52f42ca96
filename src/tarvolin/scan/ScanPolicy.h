#pragma once
// Which directories a scan may enter. A policy is one set of excluded absolute paths plus rules
// that hold for every scan whatever the set says: folders whose name ends in ".noindex", backup
// and system stores (backup databases, search and event stores, volume trash folders) and the
// backup snapshot folders. It also builds the stock policies: the default one (pseudo file
// systems and system-volume mounts), a full-disk one and a privacy-safe one.
//
// Paths and names are compared as Unicode text: canonically equivalent strings are equal, case
// matters. Entries of `excluded` are used as given (an entry with a trailing "/" never matches).
//
// A policy is an immutable value after construction; every operation is a pure function of its
// inputs (apart from the directory listings named below), so the scanner's workers call them
// concurrently without locking. The constant sets are built once, on first use, thread-safely.

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "tarvolin/platform/MountTable.h"

namespace tarvolin {

struct ScanPolicy {
  using PathSet = std::unordered_set<std::string>;
  /// Lists the names in a directory, or nothing when it cannot be read.
  using DirectoryContents =
      std::function<std::optional<std::vector<std::string>>(const std::string&)>;

  /// Absolute paths without a trailing "/".
  PathSet excluded;

  /// May the scanner enter this directory? False when the path is a member of `excluded`
  /// (whole-path membership: the scanner never enters an excluded directory, so nothing below
  /// one is ever asked about), lies in a ".noindex" folder, or in a backup or system store.
  bool shouldDescend(std::string_view intoAbsolutePath) const;
  /// Is this path, or an ancestor of it, excluded? "/dev" excludes /dev and /dev/fd, not
  /// /devices. Any ".noindex" component excludes too.
  bool isExcluded(std::string_view absolutePath) const;
  /// A copy whose set also holds `excludedPaths`.
  ScanPolicy adding(const std::vector<std::string>& excludedPaths) const;

  /// The eight system mounts and pseudo file systems skipped by default, plus "/sys" and "/run".
  static const PathSet& defaultExclusions();
  /// The operating system's own folders ("/System", "/usr", ...).
  static const PathSet& systemFolders();

  /// Default exclusions plus other users' private folders under "/Users"; also the system
  /// folders unless `includingSystemFolders` (which means: the scan includes them).
  static ScanPolicy fullDisk(std::string_view homeDirectory, bool includingSystemFolders,
                             const DirectoryContents& contents = listDirectory);
  /// Default exclusions, every privacy-protected location of the home folder, and "/Volumes".
  static ScanPolicy excludingTCCProtectedPaths(const std::filesystem::path& homeDirectory);
  /// The 31 privacy-protected locations as absolute paths below `homeDirectory`.
  static PathSet tccProtectedRelativePaths(const std::filesystem::path& homeDirectory);
  /// The nine private folders of every user folder in `usersDirectory` other than `home` (and
  /// other than "Shared" and names starting with "."). Empty when the folder cannot be listed.
  static PathSet otherUserPrivateFolders(std::string_view usersDirectory, std::string_view home,
                                         const DirectoryContents& contents = listDirectory);

  /// The mount points below `root` that a scan of `root` should not enter: network, FUSE and
  /// kernel pseudo file systems, and btrfs snapshot folders (a mount named ".snapshots", and the
  /// ".snapshots" folder at the top of every btrfs mount). A mount at or above `root` is never
  /// among them: a scan started inside one walks it. Sorted, without duplicates; pure.
  static std::vector<std::string> mountExclusions(
      std::string_view root, const std::vector<platform::MountEntry>& mountTable);
  /// The same for this machine's mount table, read once per call.
  static std::vector<std::string> mountExclusions(std::string_view root);

  /// True for a member of systemFolders() or a path below one.
  static bool isSystemPath(std::string_view path);
  /// True when any "/"-separated piece of `path` ends with ".noindex".
  static bool isNoIndexDirectory(std::string_view path);
  /// True when any component of `path` is a backup or system store: one of the seven store
  /// names, a name ending in ".backupbundle" or ".sparsebundle", or a backup snapshot.
  static bool isBackupOrSystemStore(std::string_view path);
  /// Every store name and every suffix that makes a name block descent (the two tests above, on
  /// one component): a blocked name ends with one of them, as text.
  static const std::vector<std::string_view>& descentBlockingEndings();
  /// True for a name shaped YYYY-MM-DD-HHMMSS.backup (ASCII digits only).
  static bool isTimeMachineSnapshot(std::string_view name);
  /// True when a volume's top-level names show it holds backups.
  static bool isTimeMachineDestination(const std::vector<std::string>& rootEntries);
  /// Lists the top level of `mountPath` with `contents` (listDirectory for the real file system)
  /// and applies the test above; unreadable gives false.
  static bool isTimeMachineDestination(std::string_view mountPath,
                                       const DirectoryContents& contents);
  /// Raw name bytes of an entry: at least 5 bytes, ending in ".app" exactly (bytewise).
  static bool isAppBundle(std::string_view name) {
    return name.size() >= 5 && name.substr(name.size() - 4) == ".app";
  }

  /// The default `contents`: the names in a directory, nothing on any error.
  static std::optional<std::vector<std::string>> listDirectory(const std::string& path);

  friend bool operator==(const ScanPolicy&, const ScanPolicy&) = default;
};

}  // namespace tarvolin
