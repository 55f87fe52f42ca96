#pragma once
// Paths of builder records for tests: the raw names from the top record down, joined by "/".

#include <optional>
#include <string>

#include "tarvolin/index/IndexBuilder.h"

namespace tarvolin::testing {

inline std::string pathOf(const IndexBuilder& builder, uint32_t id) {
  std::string path;
  for (uint32_t at = id; at != FileRecord::rootParentID; at = builder[at].parentID) {
    path.insert(0, "/" + std::string(builder.nameBytes(at)));
  }
  return path.substr(1);  // the top record's empty name
}

inline std::optional<uint32_t> idOf(const IndexBuilder& builder, const std::string& path) {
  for (uint32_t id = 0; id < builder.recordCount(); ++id) {
    if (pathOf(builder, id) == path) return id;
  }
  return std::nullopt;
}

}  // namespace tarvolin::testing
