#pragma once
// A catalog as one file: a zip archive (extension "tarvolincatalog") whose only two entries are
// "index.bin" and "info.json" at the top level. Export packs a catalog folder through a staging
// folder and replaces the destination in one rename. Unpack accepts an archive only when it holds
// exactly those two regular files (a leading "./" allowed), the info document is at most 1 MiB
// and names no path that climbs out of where it belongs, and the index loads and is structurally
// sound; only then is the unpacked folder handed over.
//
// The archive's bytes never choose a path: entries are read into files this code creates (never
// following a link, never replacing anything) under fixed names in a fresh folder, and an entry
// that expands past a bound is refused, so a hostile archive cannot write outside that folder or
// fill the disk. Stateless; each call uses its own uniquely named temporary items, so calls may
// run in parallel on any threads.

#include <cstdint>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/catalog/CatalogInfo.h"
#include "tarvolin/index/IndexStore.h"

namespace tarvolin::CatalogArchive {

inline constexpr std::string_view fileExtension = "tarvolincatalog";
/// The largest "info.json" accepted.
inline constexpr uint64_t maxInfoBytes = 1024 * 1024;
/// "index.bin" may expand to the larger of this and `maxIndexExpansion` times the archive's size;
/// a real index compresses a few times at most, a bomb a thousand times.
inline constexpr uint64_t minIndexLimitBytes = uint64_t{64} << 20;
inline constexpr uint64_t maxIndexExpansion = 100;

class ArchiveError : public std::exception {
 public:
  enum class Kind { unsupportedFormat, toolFailed, notACatalog, damagedIndex };

  /// The archive's info document has a newer formatVersion than this build reads.
  static ArchiveError unsupportedFormat(int64_t found) {
    return ArchiveError(Kind::unsupportedFormat, found, {});
  }
  /// The archive could not be written, read or listed; carries the archive library's message.
  static ArchiveError toolFailed(std::string message) {
    return ArchiveError(Kind::toolFailed, 0, std::move(message));
  }
  /// The file is not a well-formed catalog archive (any structural or safety check).
  static ArchiveError notACatalog() { return ArchiveError(Kind::notACatalog, 0, {}); }
  /// The archived index file does not load.
  static ArchiveError damagedIndex() { return ArchiveError(Kind::damagedIndex, 0, {}); }

  Kind kind() const { return kind_; }
  int64_t found() const { return found_; }                 // unsupportedFormat only
  const std::string& message() const { return message_; }  // toolFailed only
  const char* what() const noexcept override;

  friend bool operator==(const ArchiveError& a, const ArchiveError& b) {
    return a.kind_ == b.kind_ && a.found_ == b.found_ && a.message_ == b.message_;
  }

 private:
  ArchiveError(Kind kind, int64_t found, std::string message)
      : kind_(kind), found_(found), message_(std::move(message)) {}

  Kind kind_;
  int64_t found_;
  std::string message_;
};

/// What unpack hands over: the archive's description and a fresh folder holding exactly
/// "index.bin" and "info.json". The caller owns the folder and must move or delete it.
struct Unpacked {
  CatalogInfo info;
  std::filesystem::path directory;
};

/// Maps the destination to a folder on its file system where the archive is built (may throw).
using ScratchDirectory = std::function<std::filesystem::path(const std::filesystem::path&)>;
/// Makes an archive of a folder's "index.bin" and "info.json" at a path (may throw).
using Zip =
    std::function<void(const std::filesystem::path& folder, const std::filesystem::path& archive)>;

/// Writes the archive of `catalogDirectory`'s "index.bin" and "info.json" (nothing else) to
/// `destination`, which is replaced in one step and need not exist. Throws std::system_error
/// (std::filesystem::filesystem_error) or ArchiveError::toolFailed.
void exportCatalog(const std::filesystem::path& catalogDirectory,
                   const std::filesystem::path& destination);
/// The same with the two steps given: when `scratchDirectory` throws, the archive is built beside
/// the destination under a hidden temporary name instead. Only the destination is left behind.
void exportCatalog(const std::filesystem::path& catalogDirectory,
                   const std::filesystem::path& destination,
                   const ScratchDirectory& scratchDirectory, const Zip& zip);

/// The default ScratchDirectory: a new hidden folder beside the destination, so the final
/// replacement is a rename within one file system. Folders left there by an export that was
/// killed (their process is gone) are removed first.
std::filesystem::path defaultScratchDirectory(const std::filesystem::path& destination);
/// The default Zip: a zip archive of the two files, compressed, written and synced.
void writeZip(const std::filesystem::path& folder, const std::filesystem::path& archive);

/// Checks and unpacks the archive at `archive` into a fresh temporary folder. Throws
/// ArchiveError (notACatalog for a file that is not a zip archive), or std::system_error when the
/// temporary folder cannot be made. Leaves nothing behind on failure.
Unpacked unpack(const std::filesystem::path& archive);
/// The same for an archive held in memory.
Unpacked unpack(std::span<const uint8_t> archive);

/// The entry names in archive order. Throws ArchiveError::toolFailed when it cannot be listed.
std::vector<std::string> listEntries(const std::filesystem::path& archive);

/// False when the description names a path that climbs: a relativeRoot starting with "/" or
/// with a ".." piece, a lastMountPath with a ".." piece, or for drive and folder catalogs a
/// non-empty lastMountPath that does not start with "/".
bool isSafe(const CatalogInfo& info);

/// True when the index is one a scan or import could have produced for `info`: one volume, a
/// root record inside the table, names inside the blob, every parent before its child, child
/// names that are plain names, unnamed top records for drive and folder catalogs, and the root
/// record's path equal to info.rootPath().
bool isWellFormed(const std::shared_ptr<const IndexStore>& store, const CatalogInfo& info);

}  // namespace tarvolin::CatalogArchive
