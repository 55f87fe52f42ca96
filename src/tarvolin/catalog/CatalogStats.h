#pragma once
// The counts a catalog shows for itself: files, folders and bytes below its root. Measured once
// over a builder after FolderSizes::rollUp, and stored in the catalog's description.

#include <cstdint>
#include <optional>

#include "tarvolin/index/IndexBuilder.h"

namespace tarvolin {

struct CatalogStats {
  int64_t fileCount = 0;    // records that are not directories
  int64_t folderCount = 0;  // directories below the root (the root and its ancestors left out)
  uint64_t totalBytes = 0;  // the rolled-up size of the root, or of all top records together

  /// Counts the records of `builder` that are not deleted. With `rootID` inside the table (a
  /// scanned catalog, whose root sits at depth `rootID` on a chain of single folders from the
  /// top record), the root and its `rootID` ancestors are not counted as folders and the bytes
  /// are the root's size. Without one (a file list, with several top records), every folder is
  /// counted and the bytes are the sum of the top records' sizes. Sizes are read as they are,
  /// so call it after FolderSizes::rollUp.
  static CatalogStats measure(const IndexBuilder& builder, std::optional<uint32_t> rootID);

  friend bool operator==(const CatalogStats&, const CatalogStats&) = default;
};

}  // namespace tarvolin
