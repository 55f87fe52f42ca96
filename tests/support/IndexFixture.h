#pragma once
// Builds small indexes in code: a tree described by paths, with chosen flags, sizes and times,
// written to a file and loaded back as a store.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/index/IndexStore.h"

namespace tarvolin::testing {

struct FixtureEntry {
  std::string path;              // absolute, e.g. "/Users/me/a.txt"; a trailing "/" marks a folder
  std::optional<uint64_t> size;  // with mtime: attributes filled
  uint32_t mtime = 0;
  RecordFlags extraFlags;
};

/// Adds the entries below an empty-named top record, creating missing folders on the way, in
/// the order given. Returns the builder.
IndexBuilder buildTree(const std::vector<FixtureEntry>& entries);

/// Writes `builder` to `path` with one volume ("local", "/") and loads it.
std::shared_ptr<const IndexStore> writeAndLoad(const IndexBuilder& builder,
                                               const std::filesystem::path& path);

/// ID of the record at `path` in `store`, found by walking names; nothing when absent.
std::optional<uint32_t> findRecord(const IndexStore& store, const std::string& path);

}  // namespace tarvolin::testing
