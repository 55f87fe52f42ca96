#pragma once
// The description of one catalog: what was catalogued (a whole drive, a folder on a drive or an
// imported file list), where its volume was mounted, its totals and when it was last seen. Kept
// as "info.json" in the catalog's folder (see docs/format/catalog.md): pretty-printed JSON with
// keys in byte order, dates as "YYYY-MM-DDTHH:MM:SSZ", absent optional fields left out.
//
// A plain value; any thread. Reading checks the format version before anything else, so a newer
// document of a different shape still reports its version.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace tarvolin {

struct CatalogInfo {
  static constexpr int64_t currentFormatVersion = 1;

  enum class Kind {
    drive,   // a whole volume
    folder,  // a folder on a volume
    efu,     // imported from an EFU file list
  };
  using Date = std::chrono::sys_seconds;

  int64_t formatVersion = currentFormatVersion;
  std::string id;            // also the name of the catalog's folder
  Kind kind = Kind::folder;  // stored as "drive", "folder" or "efu"
  std::string volumeUUID;
  std::string relativeRoot;   // the root below the mount point, no leading "/"; "" for a drive
  std::string name;           // display name
  std::string lastMountPath;  // where the volume was mounted when last seen
  std::optional<int64_t> capacityBytes;
  std::optional<int64_t> freeBytes;
  int64_t fileCount = 0;
  int64_t folderCount = 0;
  uint64_t totalBytes = 0;
  std::optional<uint32_t> rootRecordID;  // the catalogued root's record in the catalog's index
  std::optional<Date> lastConnected;
  std::optional<Date> lastCatalogued;

  /// Reads and decodes the document at `path`. Throws CatalogError: unreadableInfo when the file
  /// cannot be read or is not a valid document, unsupportedFormat when its formatVersion is 2 or
  /// more (versions 1, 0 and below are read).
  static CatalogInfo read(const std::filesystem::path& path);
  /// The same over bytes already in memory.
  static CatalogInfo decode(std::span<const uint8_t> bytes);
  /// The document's bytes, ending in a newline.
  std::string encode() const;
  /// Creates the parent folder with intermediates and replaces `path` atomically. Throws
  /// std::system_error (std::filesystem::filesystem_error for the folder).
  void write(const std::filesystem::path& path) const;

  /// `mountPath` when `relative` is empty; "/" + `relative` when the mount path is "/"; else the
  /// two joined by one "/".
  static std::string join(std::string_view mountPath, std::string_view relative);
  /// Where the catalogued root lies when the volume is mounted where it was last seen.
  std::string rootPath() const { return join(lastMountPath, relativeRoot); }

  static std::string_view kindName(Kind kind);
  static std::optional<Kind> kindNamed(std::string_view name);

  friend bool operator==(const CatalogInfo&, const CatalogInfo&) = default;
};

}  // namespace tarvolin
