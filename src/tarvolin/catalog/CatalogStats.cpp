#include "tarvolin/catalog/CatalogStats.h"

#include <algorithm>

namespace tarvolin {

CatalogStats CatalogStats::measure(const IndexBuilder& builder, std::optional<uint32_t> rootID) {
  int64_t files = 0;
  int64_t folders = 0;
  uint64_t topBytes = 0;
  for (const FileRecord& record : builder.records()) {
    if (record.flags.contains(RecordFlags::deleted)) continue;
    if (record.flags.contains(RecordFlags::isDirectory)) {
      ++folders;
    } else {
      ++files;
    }
    if (record.parentID == FileRecord::rootParentID) topBytes += record.size;
  }
  CatalogStats stats;
  stats.fileCount = files;
  if (rootID && *rootID < builder.recordCount()) {
    stats.folderCount = std::max<int64_t>(folders - (static_cast<int64_t>(*rootID) + 1), 0);
    stats.totalBytes = builder[*rootID].size;
  } else {
    stats.folderCount = folders;
    stats.totalBytes = topBytes;
  }
  return stats;
}

}  // namespace tarvolin
