#pragma once
// One matching record: its ID, how well its name matched, and where the match starts in the name.

#include <cstdint>

#include "tarvolin/query/MatchQuality.h"

namespace tarvolin {

/// Eight bytes: a search can return every record of the index, and fresh memory is the dearest
/// thing a one-shot search touches.
struct Match {
  uint32_t id = 0;
  MatchQuality quality = MatchQuality::substring;
  /// Byte offset in the name where the match starts (names hold at most 255 bytes); 0 when the
  /// record matched only through filter or path terms.
  int16_t matchOffset = 0;

  Match() = default;
  Match(uint32_t id, MatchQuality quality, int64_t matchOffset)
      : id(id), quality(quality), matchOffset(static_cast<int16_t>(matchOffset)) {}

  friend bool operator==(const Match&, const Match&) = default;
};
static_assert(sizeof(Match) == 8);

}  // namespace tarvolin
