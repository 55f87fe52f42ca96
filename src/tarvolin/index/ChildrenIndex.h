#pragma once
// Parent links inverted once into per-folder child lists, for browsing a tree downwards. Three
// flat arrays; immutable after construction, so threads may share it.

#include <cstdint>
#include <span>
#include <vector>

#include "tarvolin/index/IndexStore.h"

namespace tarvolin {

class ChildrenIndex {
 public:
  /// Two passes over the records. Deleted records are neither roots nor children; links outside
  /// the table are ignored.
  explicit ChildrenIndex(const IndexStore& store) : ChildrenIndex(store.records(), true) {}

  /// The same over any record table; deleted records are left out only when `skipDeleted`.
  ChildrenIndex(std::span<const FileRecord> records, bool skipDeleted);

  /// The children of `id` in ascending ID order; empty for an ID outside the table.
  std::span<const uint32_t> children(uint32_t id) const;
  /// The top records (parent 0xFFFFFFFF), ascending.
  const std::vector<uint32_t>& roots() const { return roots_; }

  /// start()[i] ..< start()[i + 1] are the positions of record i's children in ids().
  const std::vector<uint32_t>& start() const { return start_; }
  const std::vector<uint32_t>& ids() const { return ids_; }

 private:
  std::vector<uint32_t> start_;
  std::vector<uint32_t> ids_;
  std::vector<uint32_t> roots_;
};

}  // namespace tarvolin
