#include "tarvolin/scan/AttributeCarryForward.h"

#include <deque>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tarvolin/scan/detail/NameTable.h"
#include "tarvolin/scan/detail/TextCompare.h"

namespace tarvolin::AttributeCarryForward {

namespace {

constexpr uint32_t kNoParent = FileRecord::rootParentID;

// Compressed child list of one record table: children of record i are
// ids[start[i] ... start[i+1]), in record order.
struct CSR {
  std::vector<uint32_t> start;
  std::vector<uint32_t> ids;

  explicit CSR(std::span<const FileRecord> records) : start(records.size() + 1, 0) {
    size_t n = records.size();
    for (const FileRecord& record : records) {
      if (record.parentID < n) ++start[record.parentID + 1];
    }
    for (size_t i = 0; i < n; ++i) start[i + 1] += start[i];
    ids.resize(start[n]);
    std::vector<uint32_t> next(start.begin(), start.end() - 1);
    for (size_t i = 0; i < n; ++i) {
      uint32_t parent = records[i].parentID;
      if (parent < n) ids[next[parent]++] = static_cast<uint32_t>(i);
    }
  }

  std::span<const uint32_t> of(uint32_t parent) const {
    if (parent >= start.size() - 1) return {};
    return {ids.data() + start[parent], ids.data() + start[parent + 1]};
  }
};

std::vector<uint32_t> roots(std::span<const FileRecord> records) {
  std::vector<uint32_t> ids;
  for (size_t i = 0; i < records.size(); ++i) {
    if (records[i].parentID == kNoParent) ids.push_back(static_cast<uint32_t>(i));
  }
  return ids;
}

class Matcher {
 public:
  Matcher(const IndexStore& old, IndexBuilder& builder) : old_(old), builder_(builder) {}

  // Matches one group of old siblings against one group of new siblings.
  void matchLevel(std::span<const uint32_t> oldIDs, std::span<const uint32_t> newIDs) {
    if (oldIDs.empty() || newIDs.empty()) return;
    texts_.clear();
    table_.reset(oldIDs.size());
    for (uint32_t id : oldIDs) table_.insert(keyOf(old_.nameBytes(id)), id);
    std::string scratch;
    for (uint32_t newID : newIDs) {
      std::optional<uint32_t> found =
          table_.find(detail::comparableText(builder_.nameBytes(newID), scratch));
      if (!found) continue;
      const FileRecord& oldRecord = old_[*found];
      if (oldRecord.flags.contains(RecordFlags::attrsFilled)) {
        builder_.setAttributes(newID, oldRecord.size, oldRecord.mtime);
        ++carried_;
      }
      if (oldRecord.flags.contains(RecordFlags::isDirectory) &&
          builder_[newID].flags.contains(RecordFlags::isDirectory)) {
        pending_.emplace_back(*found, newID);
      }
    }
  }

  int64_t run() {
    CSR oldChildren(old_.records());
    CSR newChildren(std::span<const FileRecord>(builder_.records()));
    matchLevel(roots(old_.records()), roots(builder_.records()));
    for (size_t next = 0; next < pending_.size(); ++next) {
      auto [oldID, newID] = pending_[next];
      matchLevel(oldChildren.of(oldID), newChildren.of(newID));
    }
    return carried_;
  }

 private:
  // An ASCII name is its own key; any other is keyed by its NFC form, kept alive in texts_
  // (a deque, so earlier keys do not move).
  std::string_view keyOf(std::string_view name) {
    if (detail::isAscii(name)) return name;
    std::string scratch;
    texts_.push_back(std::string(detail::comparableText(name, scratch)));
    return texts_.back();
  }

  const IndexStore& old_;
  IndexBuilder& builder_;
  detail::NameTable table_;
  std::deque<std::string> texts_;
  std::vector<std::pair<uint32_t, uint32_t>> pending_;  // first in, first out by index
  int64_t carried_ = 0;
};

}  // namespace

int64_t carry(const IndexStore& from, IndexBuilder& into) {
  if (from.count() == 0 || into.recordCount() == 0) return 0;
  return Matcher(from, into).run();
}

}  // namespace tarvolin::AttributeCarryForward
