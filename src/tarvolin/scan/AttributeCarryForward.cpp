#include "tarvolin/scan/AttributeCarryForward.h"

#include <deque>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tarvolin/index/ChildrenIndex.h"
#include "tarvolin/scan/detail/NameTable.h"
#include "tarvolin/scan/detail/TextCompare.h"

namespace tarvolin::AttributeCarryForward {

namespace {

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
    ChildrenIndex oldChildren(old_.records(), /*skipDeleted=*/false);
    ChildrenIndex newChildren(builder_.records(), /*skipDeleted=*/false);
    matchLevel(oldChildren.roots(), newChildren.roots());
    for (size_t next = 0; next < pending_.size(); ++next) {
      auto [oldID, newID] = pending_[next];
      matchLevel(oldChildren.children(oldID), newChildren.children(newID));
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
