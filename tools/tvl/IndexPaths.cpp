#include "IndexPaths.h"

#include <array>

#include "tarvolin/index/ParentWalk.h"

namespace tvl {

void appendRawPath(std::string& out, const tarvolin::IndexStore& store, uint32_t id) {
  std::array<uint32_t, tarvolin::ParentWalk::maxDepth> chain;
  size_t depth = 0;
  for (tarvolin::ParentWalk walk(store.records(), id); walk.valid(); walk.next()) {
    chain[depth++] = walk.id();
  }
  size_t start = out.size();
  for (size_t i = depth; i-- > 0;) {
    out.append(store.nameBytes(chain[i]));
    if (i > 0) out.push_back('/');
  }
  if (out.size() == start) out.push_back('/');
}

std::optional<uint32_t> findRecordByPath(const tarvolin::IndexStore& store, std::string_view path) {
  size_t slash = path.rfind('/');
  std::string_view last = slash == std::string_view::npos ? path : path.substr(slash + 1);
  std::optional<uint32_t> found;
  std::string candidate;
  for (uint32_t id = 0; id < store.count(); ++id) {
    const tarvolin::FileRecord& record = store[id];
    if (record.nameLen != last.size() || record.flags.contains(tarvolin::RecordFlags::deleted)) {
      continue;
    }
    if (store.nameBytes(id) != last) continue;
    candidate.clear();
    appendRawPath(candidate, store, id);
    if (candidate == path) found = id;
  }
  return found;
}

}  // namespace tvl
