#include "tarvolin/catalog/FolderSizes.h"

#include <cstdint>
#include <vector>

namespace tarvolin::FolderSizes {

void rollUp(IndexBuilder& builder) {
  uint32_t n = builder.recordCount();
  if (n == 0) return;
  std::vector<uint64_t> sums(n, 0);
  for (uint32_t id = n; id-- > 0;) {
    const FileRecord& record = builder[id];
    if (record.flags.contains(RecordFlags::deleted)) continue;
    uint64_t contribution = record.size;
    if (record.flags.contains(RecordFlags::isDirectory)) {
      contribution = sums[id];
      builder.setAttributes(id, contribution, record.mtime);
    }
    // A parent link at or past the end (the top's 0xFFFFFFFF, or a broken one) adds to nothing.
    if (record.parentID < n) sums[record.parentID] += contribution;
  }
}

}  // namespace tarvolin::FolderSizes
