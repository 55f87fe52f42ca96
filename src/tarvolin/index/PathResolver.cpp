#include "tarvolin/index/PathResolver.h"

#include <array>
#include <string_view>

#include "tarvolin/platform/Unicode.h"

namespace tarvolin {

std::string PathResolver::absolutePath(uint32_t id) const {
  std::array<std::string_view, maxDepth> names;
  size_t depth = 0;
  size_t length = 0;
  uint32_t current = id;
  while (true) {
    names[depth] = store_->nameBytes(current);
    length += names[depth].size() + 1;
    ++depth;
    uint32_t parent = (*store_)[current].parentID;
    if (parent == FileRecord::rootParentID || depth == maxDepth) break;
    current = parent;
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
  uint32_t current = id;
  for (size_t steps = 0; steps < maxDepth; ++steps) {
    uint32_t parent = (*store_)[current].parentID;
    if (parent == FileRecord::rootParentID) return false;
    current = parent;
  }
  return true;
}

}  // namespace tarvolin
