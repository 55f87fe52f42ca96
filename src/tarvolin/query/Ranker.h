#pragma once
// Orders matches best first and cuts them to a limit without sorting them all. Matches are
// grouped by quality (applications matched at a word boundary or better rank with the exact
// ones), and each group is reduced with a bounded insertion list by a score that favours
// applications, shallow paths and early matches, and pushes down hidden items, anything inside
// an application bundle, and anything below folders of generated or cached material.
//
// One Ranker per store. Not thread-safe: `rank` fills a per-folder memo of depth and demotion.

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "tarvolin/index/IndexStore.h"
#include "tarvolin/platform/Memory.h"
#include "tarvolin/query/Match.h"

namespace tarvolin {

struct RankedResult {
  Match match;
  int32_t score = 0;

  friend bool operator==(const RankedResult&, const RankedResult&) = default;
};

class Ranker {
 public:
  static constexpr int32_t appScore = 50000;
  static constexpr int32_t hiddenPenalty = 200;
  static constexpr int32_t insideAppPenalty = 40000;
  static constexpr int32_t depthPenalty = 10;
  static constexpr int32_t maxOffsetPenalty = 100;
  static constexpr int32_t demotedPenalty = 5000;

  /// Folder names whose contents rank lower, compared byte for byte.
  static const std::vector<std::string_view>& demotedPathComponents();

  explicit Ranker(std::shared_ptr<const IndexStore> store);

  /// Every record's score as a match at offset 0, by ID: one pass over the store, worth it for
  /// a store that many large rankings will use (a service's, a picker's). Null for a store
  /// where a score would not tell an application (one nested thousands of folders deep).
  static std::shared_ptr<const std::vector<int32_t>> scoresOf(
      std::shared_ptr<const IndexStore> store);
  /// Scores matches by looking `scores` (the store's scoresOf) up instead of walking folders;
  /// the results are the same. Null goes back to walking.
  void useScores(std::shared_ptr<const std::vector<int32_t>> scores);
  bool hasScores() const { return scores_ != nullptr; }

  /// At most `limit` results, best first; nothing for a limit below 1.
  std::vector<RankedResult> rank(const std::vector<Match>& matches, int64_t limit);

  /// The score of one match (quality plays no part). Exposed for tests and diagnostics.
  int32_t score(const Match& match);

 private:
  /// What a record's descendants inherit from it: its own depth (number of ancestors), and
  /// whether it or some ancestor has a demoted name, or is an application.
  struct AncestorInfo {
    int32_t depth;
    bool demotedThrough;
    bool appThrough;
  };

  /// `rank` with the score table: one pass that keeps the best of every bucket at once (a score
  /// is a lookup, so scoring matches of buckets the limit never reaches costs less than passing
  /// over the matches once per bucket), in shards on several threads for many matches.
  std::vector<RankedResult> rankByTable(const std::vector<Match>& matches, int64_t limit) const;
  /// The best `k` of the matches whose bucket (see rank) is `bucket`, best first.
  std::vector<RankedResult> topK(const std::vector<Match>& matches,
                                 const std::vector<uint8_t>& buckets, uint8_t bucket, int64_t k);
  /// The memo entry of `id`, computed (with those of the folders above it) when missing. The
  /// walk up from `id` takes at most 256 steps; the folder it stops at counts as a top one.
  AncestorInfo ancestorInfo(uint32_t id);
  /// Readies the memo for a ranking of `matchCount` matches.
  void prepareCache(size_t matchCount);
  /// The memo entry of a folder (0 when not computed yet), and its update.
  uint32_t remembered(uint32_t id) const;
  void remember(uint32_t id, uint32_t packed);
  /// Moves the memo to the flat table.
  void makeFlat();
  static bool isDemotedName(std::string_view bytes);

  std::shared_ptr<const IndexStore> store_;
  std::shared_ptr<const std::vector<int32_t>> scores_;  // scoresOf(store_), when given
  // Memo per folder, packed: bit 31 computed, bit 30 demotedThrough, bit 29 appThrough, low
  // bits depth. One lookup of the parent's entry scores a match.
  // Many matches share folders all over the tree: a flat table (4 bytes per record) of fresh
  // zeroed pages, backed in one call, serves them best. A few matches reach a few hundred
  // folders, spread over as many pages, and each first write to a page is a fault: they use a
  // small open-addressing table instead, until it grows large.
  platform::ZeroedPages cachePages_;
  uint32_t* directoryCache_ = nullptr;
  std::vector<uint64_t> sparseCache_;  // (id + 1) << 32 | entry; 0 is an empty slot
  size_t sparseCount_ = 0;
};

}  // namespace tarvolin
