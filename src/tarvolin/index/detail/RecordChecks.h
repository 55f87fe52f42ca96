#pragma once
// The record checks the store makes while it computes the checksum: every parent link inside
// the record table (or the top marker), and whether each name starts at or after the end of the
// one before, which, when it always holds, also keeps every name inside the blob. They run over
// groups of records whose bytes the checksum has just read, so they must cost little beside it:
// a scalar form, and an AVX2 form that checks four records per step.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "tarvolin/index/FileRecord.h"

namespace tarvolin::detail {

struct RecordChecks {
  uint32_t parentLimit = 0;  // the largest parentID + 1; the top marker wraps to 0
  bool unordered = false;    // some name starts before the previous one ends
  uint64_t previousEnd = 0;  // end of the last name checked

  void note(const FileRecord& r) {
    parentLimit = std::max(parentLimit, r.parentID + 1);
    unordered |= r.nameOffset < previousEnd;
    previousEnd = uint64_t{r.nameOffset} + r.nameLen;
  }

  void noteAll(const FileRecord* records, size_t count) {
    for (size_t i = 0; i < count; ++i) note(records[i]);
  }

  /// Same as noteAll; `count` a multiple of 4. Needs AVX2.
  void noteAllAvx2(const FileRecord* records, size_t count);
};

}  // namespace tarvolin::detail
