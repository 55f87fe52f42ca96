#pragma once
// Paths of index records as raw bytes, and the way back from a path to its record. A name in the
// index is whatever bytes the file system gave, so a path written for a script (`tvl query -0`)
// must not pass through the lossy UTF-8 decoding that display paths get: these functions copy
// the bytes as they are. Plain functions over an immutable store; any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tarvolin/index/IndexStore.h"

namespace tvl {

/// Appends the path of record `id` to `out`: the names from the top record down joined by "/",
/// byte for byte ("/" alone for an empty result, as display paths). Allocates only when `out`
/// must grow. REQUIRES: id < store.count().
void appendRawPath(std::string& out, const tarvolin::IndexStore& store, uint32_t id);

/// The live (not deleted) record whose raw path is `path` (absolute, no trailing "/", no "."
/// or ".." components), or nothing. A linear pass over the records whose name is the last
/// component; when several records spell the path, the last one wins (a rescan appends).
std::optional<uint32_t> findRecordByPath(const tarvolin::IndexStore& store, std::string_view path);

}  // namespace tvl
