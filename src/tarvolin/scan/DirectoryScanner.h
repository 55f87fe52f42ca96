#pragma once
// Walks one directory tree and records every entry in an IndexBuilder: names, parent links, the
// directory / application / symbolic-link / hidden flags and the volume index. A scan lists
// directories and never examines files: sizes and times come later (AttributeFiller, or
// AttributeCarryForward from an older index).
//
// The walk is parallel: `seedDepth` breadth-first levels on the calling thread, then one
// depth-first job per directory of the last level (the frontier) on every core, each job into a
// builder of its own; the job builders are appended in frontier order. So the record order
// depends only on the tree and the order in which the file system lists each directory:
//   1. the root chain: an empty-named top record ("/") and one folder record per component of
//      the root ("/Users/bob" gives "", "Users", "bob");
//   2. the seeding levels, level by level, frontier order, listing order within a directory;
//   3. each job's records in job order, depth-first within a job (the last subdirectory listed
//      is walked first).
// Work is split at that fixed depth only: one very large subtree below one frontier directory is
// walked by one job.
//
// Symbolic links are recorded, never followed. Mount points are not detected: a scan crosses into
// any file system below the root unless the policy excludes it. An excluded directory, a store or
// a ".noindex" folder keeps its own record; only its contents are skipped. Names longer than 255
// bytes keep their first 255 bytes; the paths of their children use the whole name.
//
// A scanner has no mutable state: `scan` may be called repeatedly and from several threads at
// once. The callbacks of one scan are called from its worker threads, several at a time.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/scan/ScanPolicy.h"

namespace tarvolin {

/// What one scan produced. Move-only, like the builder it holds.
struct ScanResult {
  IndexBuilder builder;                 // every record of the scan
  int64_t entriesScanned = 0;           // entries recorded, not counting the root chain
  int64_t directoriesDenied = 0;        // directories that could not be opened, for any reason
  int64_t directoriesDeniedInHome = 0;  // of those: inside the home folder, failed with EPERM
  std::vector<std::string> deniedPathsInHome;  // up to deniedSampleCap of the latter
  double duration = 0;                         // wall-clock seconds of the whole scan
  bool cancelled = false;  // stopped by shouldContinue (or by the 32-bit limits)
};

class DirectoryScanner {
 public:
  /// The most denied paths kept in a result.
  static constexpr size_t deniedSampleCap = 16;

  using ProgressCallback = std::function<void(int64_t)>;
  using ContinueCallback = std::function<bool()>;

  /// A negative `seedDepth` is stored as 0; a negative or NaN `progressInterval` (seconds
  /// between two progress callbacks) as 0. `home` is used only to classify denied directories.
  DirectoryScanner(ScanPolicy policy, int64_t seedDepth, double progressInterval, std::string home);

  /// Scans `root` (trailing "/" ignored; "" and "/" both mean the file-system root) into records
  /// of volume `volumeIndex`. `onProgress` (may be empty) receives the running number of entries
  /// recorded, at most once per progress interval (counts from two threads may arrive out of
  /// order). `shouldContinue` is asked before each directory is listed; false stops the scan,
  /// which keeps every record made so far. A root that cannot be opened gives only the root
  /// chain and one denied directory. Never throws for file-system reasons.
  ScanResult scan(std::string_view root, uint8_t volumeIndex, const ProgressCallback& onProgress,
                  const ContinueCallback& shouldContinue) const;
  /// The same without progress and without stopping.
  ScanResult scan(std::string_view root, uint8_t volumeIndex) const;

  /// True exactly for EPERM: the denial that granting the program access fixes (plain
  /// permission bits give EACCES, a vanished directory ENOENT).
  static bool isFixableDenial(int errorNumber) { return errorNumber == 1; }

  const ScanPolicy& policy() const { return policy_; }
  int64_t seedDepth() const { return seedDepth_; }
  double progressInterval() const { return progressInterval_; }
  const std::string& homeDirectory() const { return homeDirectory_; }

 private:
  ScanPolicy policy_;
  int64_t seedDepth_;
  double progressInterval_;
  std::string homeDirectory_;
};

}  // namespace tarvolin
