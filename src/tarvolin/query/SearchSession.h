#pragma once
// Search-as-you-type. Remembers the queries of the current typing run as a stack of levels:
// one more character typed onto a single plain word re-examines only the previous results;
// deleting back to an earlier text brings that level's results back without matching. A
// generation counter makes every remembered level stale when the index is replaced.
//
// Not thread-safe: one caller at a time (the matcher's parallel scans run inside `search`).

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tarvolin/index/IndexStore.h"
#include "tarvolin/query/Match.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/TrigramIndex.h"

namespace tarvolin {

class SearchSession {
 public:
  explicit SearchSession(std::shared_ptr<const IndexStore> store);

  /// The unranked matches for `text` (the caller ranks them). The list is the session's own
  /// memory of this level: valid until the next search, reset or updateStore.
  const std::vector<Match>& search(const std::string& text);
  /// Forgets every level (the search field was cleared or a new typing run begins).
  void reset() { stack_.clear(); }
  size_t stackDepth() const { return stack_.size(); }
  /// Searches a new index from now on: a new matcher, a new generation, no trigram index and no
  /// extension groups.
  void updateStore(std::shared_ptr<const IndexStore> store);

  const std::shared_ptr<const TrigramIndex>& trigrams() const { return matcher_->trigrams(); }
  /// Hands the index to the session's matcher.
  void setTrigrams(std::shared_ptr<const TrigramIndex> trigrams);

  const std::shared_ptr<const ExtensionIndex>& extensions() const { return matcher_->extensions(); }
  /// Hands the groups to the session's matcher.
  void setExtensions(std::shared_ptr<const ExtensionIndex> extensions);

  int64_t generation() const { return generation_; }

 private:
  struct Level {
    std::string text;
    std::vector<Match> results;
    int64_t generation;
    bool singleWord;  // the text parsed to one plain word
  };

  /// The previous results to re-examine, when `text` only extends the top level's single word.
  std::optional<std::vector<uint32_t>> candidatePool(const std::string& text,
                                                     const Query& query) const;

  std::unique_ptr<Matcher> matcher_;
  std::vector<Level> stack_;
  int64_t generation_ = 0;
};

}  // namespace tarvolin
