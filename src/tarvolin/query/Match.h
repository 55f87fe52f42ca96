#pragma once
// One matching record: its ID, how well its name matched, and where the match starts in the name.

#include <cstdint>

#include "tarvolin/query/MatchQuality.h"

namespace tarvolin {

struct Match {
  uint32_t id = 0;
  MatchQuality quality = MatchQuality::substring;
  /// Byte offset in the name where the match starts; 0 when the record matched only through
  /// filter or path terms.
  int32_t matchOffset = 0;

  friend bool operator==(const Match&, const Match&) = default;
};

}  // namespace tarvolin
