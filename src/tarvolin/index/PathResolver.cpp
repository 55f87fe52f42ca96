#include "tarvolin/index/PathResolver.h"

#include <array>
#include <string_view>

#include "tarvolin/platform/Unicode.h"

namespace tarvolin {

std::string PathResolver::absolutePath(uint32_t id) const {
  std::array<std::string_view, maxDepth> names;
  size_t depth = 0;
  size_t length = 0;
  for (ParentWalk walk(store_->records(), id); walk.valid(); walk.next()) {
    names[depth] = store_->nameBytes(walk.id());
    length += names[depth].size() + 1;
    ++depth;
  }
  std::string path;
  path.reserve(length);
  for (size_t i = depth; i-- > 0;) {
    platform::appendUtf8Lossy(path, names[i]);
    if (i > 0) path.push_back('/');
  }
  if (path.empty()) return "/";
  return path;
}

std::string PathResolver::parentPath(uint32_t id) const {
  uint32_t parent = (*store_)[id].parentID;
  if (parent == FileRecord::rootParentID) return "/";
  return absolutePath(parent);
}

bool PathResolver::containsCycle(uint32_t id) const {
  ParentWalk walk(store_->records(), id);
  while (walk.valid()) walk.next();
  return !walk.reachedTop();
}

}  // namespace tarvolin
