#include "tarvolin/index/ChildrenIndex.h"

namespace tarvolin {

ChildrenIndex::ChildrenIndex(std::span<const FileRecord> records, bool skipDeleted) {
  auto n = static_cast<uint32_t>(records.size());
  auto left = [&](const FileRecord& record) {
    return skipDeleted && record.flags.contains(RecordFlags::deleted);
  };
  start_.assign(uint64_t{n} + 1, 0);
  for (uint32_t id = 0; id < n; ++id) {
    const FileRecord& record = records[id];
    if (left(record)) continue;
    if (record.parentID == FileRecord::rootParentID) {
      roots_.push_back(id);
    } else if (record.parentID < n) {
      ++start_[record.parentID + 1];
    }
  }
  for (uint32_t i = 0; i < n; ++i) start_[i + 1] += start_[i];
  ids_.assign(start_[n], 0);
  std::vector<uint32_t> cursor(start_.begin(), start_.end() - 1);
  for (uint32_t id = 0; id < n; ++id) {
    const FileRecord& record = records[id];
    if (left(record)) continue;
    if (record.parentID != FileRecord::rootParentID && record.parentID < n) {
      ids_[cursor[record.parentID]++] = id;
    }
  }
}

std::span<const uint32_t> ChildrenIndex::children(uint32_t id) const {
  if (uint64_t{id} + 1 >= start_.size()) return {};
  return std::span<const uint32_t>(ids_).subspan(start_[id], start_[id + 1] - start_[id]);
}

}  // namespace tarvolin
