#pragma once
// Walks the parent links of a record table upwards: a record, its parent, the parent's parent,
// and so on. Every walk up a tree in the engine goes through this one, which also holds how far
// such a walk may go: 256 records, enough for any real path and a bound on damaged tables whose
// links form a loop.
//
// A walk ends after a top record (its parent is FileRecord::rootParentID), before a link that
// leaves the table, or after its limit of records. It is a small value over a span, so hot loops
// may make one per record: nothing is allocated. Any thread, over a table nobody changes during
// the walk.
//
//   for (ParentWalk walk(store.records(), id); walk.valid(); walk.next()) use(walk.id());

#include <cstddef>
#include <cstdint>
#include <span>

#include "tarvolin/index/FileRecord.h"

namespace tarvolin {

class ParentWalk {
 public:
  /// The most records one walk visits, its start included: the names of a path, the steps of
  /// a search up the tree.
  static constexpr size_t maxDepth = 256;

  /// A walk that starts at `start` and visits at most `limit` records. A start outside the
  /// table, or a limit of 0, gives an empty walk.
  ParentWalk(std::span<const FileRecord> records, uint32_t start, size_t limit = maxDepth)
      : records_(records), current_(start), left_(start < records.size() ? limit : 0) {}

  /// True while the walk stands on a record.
  bool valid() const { return left_ != 0; }
  /// The record the walk stands on. REQUIRES: valid().
  uint32_t id() const { return current_; }
  /// Steps to the parent of the current record, or ends the walk. REQUIRES: valid().
  void next() {
    uint32_t parent = records_[current_].parentID;
    if (parent >= records_.size() || --left_ == 0) {
      reachedTop_ = parent == FileRecord::rootParentID;
      left_ = 0;
      return;
    }
    current_ = parent;
  }
  /// After the walk: whether its last record was a top record, rather than the limit or a link
  /// out of the table ending it.
  bool reachedTop() const { return reachedTop_; }

 private:
  std::span<const FileRecord> records_;
  uint32_t current_;
  size_t left_;
  bool reachedTop_ = false;
};

}  // namespace tarvolin
