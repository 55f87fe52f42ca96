#pragma once
// Builds the index file of one catalog: scans the catalogued root, fills sizes and times, rolls
// file sizes up into their folders, counts files, folders and bytes, and writes the index with
// one volume entry (the volume's UUID, the root path as given). A stopped build writes nothing,
// so an earlier index of the same catalog stays as it was.
//
// `scan` runs on the caller's thread and blocks; the scanner and the filler use their own worker
// threads, from which `shouldContinue` and `onProgress` are called.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

#include "tarvolin/scan/AttributeFiller.h"
#include "tarvolin/scan/ScanPolicy.h"

namespace tarvolin::CatalogScanner {

/// Seed depth and progress interval (seconds) of the catalog's directory scan.
inline constexpr int64_t seedDepth = 3;
inline constexpr double progressInterval = 0.1;

struct Outcome {
  int64_t fileCount = 0;      // non-directory records below the root
  int64_t folderCount = 0;    // folders below the root (the root and its ancestors not counted)
  uint64_t totalBytes = 0;    // total size of everything below the root
  uint32_t rootRecordID = 0;  // the catalogued root's record in the index
  bool cancelled = false;     // stopped; nothing was written

  friend bool operator==(const Outcome&, const Outcome&) = default;
};

/// The id the directory scanner gives the record of `root`: the number of non-empty pieces of
/// the path split on "/" ("/" gives 0, "/Volumes/Disk" 2, "/Volumes/Disk/Photos/" 3).
uint32_t rootRecordID(std::string_view root);

/// Scans `root` into the index at `target`. `shouldContinue` is asked throughout the scan and
/// the fill and once more before anything is summed or written; false gives the cancelled
/// outcome (root id set, counts 0). `onProgress` (may be empty) receives the entries the scan
/// has found. `home` is the user's home folder, used to classify unreadable folders. With a
/// `trigramTarget`, the trigram side file of the index is built while the index is written and
/// then written there (a failure to write it only costs search speed: the file is left out).
/// Throws only what IndexWriter::write throws.
Outcome scan(std::string_view root, const std::string& volumeUUID,
             const std::filesystem::path& target, const ScanPolicy& policy,
             AttributeFiller::Appetite appetite, const std::function<bool()>& shouldContinue,
             const std::function<void(int64_t)>& onProgress, const std::string& home,
             const std::filesystem::path& trigramTarget = {});

}  // namespace tarvolin::CatalogScanner
