#pragma once
// Carries sizes and modification times from the previous index into a freshly scanned builder,
// so that a following AttributeFiller::fill with onlyMissing lists only directories holding new
// entries. Entries are matched by path, level by level down both trees at once, comparing names
// among siblings only: the top records (both named "" in scanned trees) match each other, then
// the children of every matched pair of directories, and so on. No path is ever built and no
// system call made.
//
// Names are compared as Unicode text (canonically equivalent names match), case-sensitively.
// An entry that changed in place since the old index keeps the old values until it is filled
// again: nothing here looks at the file system.
//
// One call runs on the caller's thread; the old store is only read, the builder's records get
// size, mtime and attrsFilled (its names and record count do not change).

#include <cstdint>

#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/index/IndexStore.h"

namespace tarvolin::AttributeCarryForward {

/// Copies size and mtime of every record of `from` with attrsFilled to the record of `into` at
/// the same path and marks it filled. Two directories at the same path have their children matched
/// whether or not attributes were copied; a file that became a folder (or the reverse) gets the
/// old attributes but its children are not matched. Among old siblings with the same name the
/// later record wins. Returns the number of records that received attributes.
int64_t carry(const IndexStore& from, IndexBuilder& into);

}  // namespace tarvolin::AttributeCarryForward
