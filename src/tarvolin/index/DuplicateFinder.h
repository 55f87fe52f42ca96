#pragma once
// Finds the other entries of a loaded index that look like copies of a file or folder: same kind,
// same name compared with ASCII case folded, those of equal size first. Only the record table and
// the name blob are read; no file is opened and no content is compared.
//
// Stateless; any number of threads may call it on the same store.

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "tarvolin/index/IndexStore.h"

namespace tarvolin::DuplicateFinder {

/// One copy found.
struct Copy {
  uint32_t id = 0;        // the copy's record ID in the store
  bool sameSize = false;  // its size equals the size sought and both are non-zero

  friend bool operator==(const Copy&, const Copy&) = default;
};

/// The copies of record `id`, leaving `id` itself out. Empty when `id` is outside the table, the
/// record is deleted, or `limit` < 1.
std::vector<Copy> copies(uint32_t id, const IndexStore& store, int64_t limit);

/// The records named `name` (raw bytes as stored; ASCII letters match either case, every other
/// byte only itself) whose isDirectory flag equals `isDirectory`, deleted records and `excluding`
/// left out. Same-size copies come first, then the others, each part in ID order, at most `limit`
/// in all. One pass over the table that stops as soon as `limit` same-size copies are found; a
/// size of 0 (as folders usually have) never counts as the same size. Empty for an empty name or
/// `limit` < 1.
std::vector<Copy> copies(std::string_view name, bool isDirectory, uint64_t size,
                         const IndexStore& store, std::optional<uint32_t> excluding, int64_t limit);

}  // namespace tarvolin::DuplicateFinder
