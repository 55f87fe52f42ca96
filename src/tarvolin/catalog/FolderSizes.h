#pragma once
// Gives every folder of a builder the total size of everything below it, so that a catalog or an
// imported file list answers size queries on folders without looking at the files again.
//
// One call runs on the caller's thread and needs the builder to itself.

#include "tarvolin/index/IndexBuilder.h"

namespace tarvolin::FolderSizes {

/// Sets the size of every directory record to the sum of the sizes of the records below it and
/// marks it attrsFilled; its mtime stays. A directory's stored size before the call is ignored.
/// Deleted records neither get a size nor add to their parent's. Files keep their own size.
/// One pass from the last ID down: a folder's sum is complete when it is reached because every
/// parent has a smaller ID than its children, as in scanned, merged and imported builders.
void rollUp(IndexBuilder& builder);

}  // namespace tarvolin::FolderSizes
