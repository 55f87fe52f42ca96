#pragma once
// The matcher's fuzzy fallback over a whole store: every record that is not deleted and not
// already found, scored by FuzzyMatcher against one needle, the best hits kept. Only names that
// hold the needle's rarest byte are scored (a fuzzy hit holds every needle byte), and those are
// found by the vectorised name scan.
//
// Called from the matcher's thread; the scan itself runs in shards on the platform's workers.

#include <cstddef>
#include <string>
#include <vector>

#include "tarvolin/index/IndexStore.h"
#include "tarvolin/query/Match.h"

namespace tarvolin::detail {

/// At most `limit` fuzzy matches for `needle` (lower-cased, 3 to 32 bytes), best score first,
/// none of them a record of `exclude`; each with the quality `fuzzy` and the offset of its first
/// matched byte. Hits of equal score are in no promised order.
std::vector<Match> fuzzyScan(const IndexStore& store, const std::string& needle,
                             const std::vector<Match>& exclude, size_t limit);

}  // namespace tarvolin::detail
