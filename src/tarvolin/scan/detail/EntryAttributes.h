#pragma once
// Reading the sizes and times of one directory's child records, two ways that give the same
// triples for every tree a scan can produce:
//  - statByListing, the plain path: list the directory, and stat each listed name that is a
//    child record (names are matched through the table, so of two children sharing a name the
//    later record gets the entry);
//  - statByName, the fast path the filler uses: stat each child record's name directly, skipping
//    a child when a later sibling has the same name. It makes no listing calls at all, which on
//    Linux cost as much as the stats themselves. (On a case-insensitive file system it also fills
//    a child whose entry was renamed to another case since the scan; a listing would miss it.)
// Entries created since the scan are never reported; entries gone since are skipped.
// Stateless; each caller passes its own reader and output.

#include <cstdint>
#include <span>
#include <vector>

#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/platform/DirectoryReader.h"
#include "tarvolin/scan/detail/NameTable.h"

namespace tarvolin::detail {

/// A record's attributes as read: size (0 for a directory), mtime clamped to 0 ... 2^32-1.
struct EntryAttributes {
  uint32_t id;
  uint64_t size;
  uint32_t mtime;

  friend bool operator==(const EntryAttributes&, const EntryAttributes&) = default;
};

/// The attributes for an lstat result.
EntryAttributes attributesOf(uint32_t id, const platform::EntryStatus& status);

/// REQUIRES: `children` maps every child record's name bytes to its ID (the later one for
/// shared names). Appends to `into`; a directory that cannot be opened adds nothing.
void statByListing(platform::DirectoryReader& reader, const char* path, const NameTable& children,
                   std::vector<EntryAttributes>& into);

/// The same result without listing. `childIDs` are the child records, `children` as above.
void statByName(platform::DirectoryReader& reader, const char* path, const IndexBuilder& builder,
                std::span<const uint32_t> childIDs, const NameTable& children,
                std::vector<EntryAttributes>& into);

}  // namespace tarvolin::detail
