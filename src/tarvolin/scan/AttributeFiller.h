#pragma once
// Adds sizes and modification times to the records of a scanned builder, in place, and marks
// each record it fills with attrsFilled. Files are never looked up by whole path: each directory
// is opened once and its child records' names are stat'ed relative to it, without following
// links. Linux has no bulk attribute listing, and listing a directory costs as much as stat'ing
// what it holds, so the names come from the records rather than from a listing; the result is
// the same (see detail/EntryAttributes.h). Entries created since the scan are ignored; records
// whose entry is gone, or whose directory cannot be opened, stay unfilled, and a later `fill`
// with `onlyMissing` picks them up again.
//
// `fill` is synchronous and spreads the directories over 1 to 8 worker threads chosen by
// appetite. Workers read the builder's records and names and write records only under one lock,
// in batches; the caller owns the builder for the duration and must not change it meanwhile.

#include <cstddef>
#include <cstdint>
#include <functional>

#include "tarvolin/index/IndexBuilder.h"

namespace tarvolin::AttributeFiller {

/// How many cores the fill may take.
enum class Appetite {
  watching,  // the user is waiting: all cores but one (1 to 8)
  working,   // the user is busy with other work: about half the cores (4 from 8 cores on)
};

/// Worker count for `cores` active processor cores.
size_t workerCount(Appetite appetite, size_t cores);

/// Fills size (0 for directories) and mtime (seconds, clamped to 0 ... 2^32-1) of every record
/// below a listed directory. With `onlyMissing`, lists only directories with a child lacking
/// attrsFilled, and their parents (a directory's own size and time come from its parent's
/// listing). Records are identified by the path of their directory, built from parent links (at
/// most 256 names; a chain that does not reach an empty-named top record is not listed).
/// `shouldContinue` is asked before each directory; a stop keeps what was filled. `onProgress`
/// (may be empty) receives the number of entries covered by listed directories, at most once per
/// 50,000 and once at the end; never for a builder without records. Both are called from worker
/// threads.
void fill(IndexBuilder& builder, const std::function<bool()>& shouldContinue, bool onlyMissing,
          Appetite appetite, const std::function<void(int64_t)>& onProgress);

}  // namespace tarvolin::AttributeFiller
