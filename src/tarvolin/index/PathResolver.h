#pragma once
// Turns record IDs into absolute paths by walking parent links. Holds the store it reads; cheap
// to copy; any number of threads may use one resolver at once.

#include <cstdint>
#include <memory>
#include <string>

#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/ParentWalk.h"

namespace tarvolin {

class PathResolver {
 public:
  /// The most components collected, and parent steps taken, for one path.
  static constexpr size_t maxDepth = ParentWalk::maxDepth;

  explicit PathResolver(std::shared_ptr<const IndexStore> store) : store_(std::move(store)) {}

  /// The names from the top record down to `id` joined by "/" ("/" for an empty result). The top
  /// record of a scanned tree has the empty name, so paths start with "/". A chain deeper than
  /// 256 (or a loop) yields the 256 components nearest to the record. REQUIRES: id < count.
  std::string absolutePath(uint32_t id) const;
  /// "/" for a top record, else the parent's absolute path.
  std::string parentPath(uint32_t id) const;
  /// True when 256 parent steps from `id` do not reach a top record.
  bool containsCycle(uint32_t id) const;

  const IndexStore& store() const { return *store_; }

 private:
  std::shared_ptr<const IndexStore> store_;
};

}  // namespace tarvolin
