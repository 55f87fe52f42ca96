#include "tarvolin/query/detail/FuzzyScan.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "tarvolin/query/FuzzyMatcher.h"
#include "tarvolin/query/detail/NameScan.h"
#include "tarvolin/query/detail/Sharding.h"

namespace tarvolin::detail {

namespace {

// Rough frequency of a lower-cased byte in file names, higher for more common. Only the order
// matters: it picks the needle byte that the fewest names contain.
int byteFrequency(uint8_t byte) {
  static const std::array<uint8_t, 256> table = [] {
    std::array<uint8_t, 256> t{};
    t.fill(1);  // other punctuation and the bytes of non-ASCII characters are rare in names
    const char* byFrequency = "e.aiotsrnlc_-mdup0h1g2b3f4y5w6v7k8x9jqz";
    uint8_t weight = 100;
    for (const char* c = byFrequency; *c != '\0'; ++c) t[static_cast<uint8_t>(*c)] = weight--;
    t[' '] = 70;
    return t;
  }();
  return table[byte];
}

struct Hit {
  uint32_t id;
  int64_t score;
  int64_t offset;
};

}  // namespace

std::vector<Match> fuzzyScan(const IndexStore& store, const std::string& needle,
                             const std::vector<Match>& exclude, size_t limit) {
  uint32_t n = store.count();
  std::vector<uint32_t> excluded;
  excluded.reserve(exclude.size());
  for (const Match& m : exclude) excluded.push_back(m.id);
  std::sort(excluded.begin(), excluded.end());
  const int64_t minimum = FuzzyMatcher::minimumScore(needle.size());

  std::string rarest(1, needle[0]);
  for (char c : needle) {
    if (byteFrequency(static_cast<uint8_t>(c)) < byteFrequency(static_cast<uint8_t>(rarest[0]))) {
      rarest[0] = c;
    }
  }
  ScanKernel kernel = preferredKernel(store);

  std::vector<std::vector<Hit>> slots(shardCount(n));
  forEachShard(n, [&](size_t s, size_t begin, size_t end) {
    auto skip = std::lower_bound(excluded.begin(), excluded.end(), static_cast<uint32_t>(begin));
    // Candidates are taken a few thousand records at a time into one small list that is reused,
    // so the prefilter never writes more fresh memory than that list. fuzzyFallback in
    // bench/MatcherBench.cpp (2 M names): 10.5 ms CPU with steps of 512 or 4096 records, 14.5 ms
    // with 65536.
    constexpr size_t kStep = 4096;
    std::vector<Match> holding;
    holding.reserve(kStep);
    for (size_t from = begin; from < end; from += kStep) {
      holding.clear();
      scanRange(store, static_cast<uint32_t>(from),
                static_cast<uint32_t>(std::min(end, from + kStep)), rarest, kernel, holding);
      for (const Match& candidate : holding) {
        uint32_t id = candidate.id;
        while (skip != excluded.end() && *skip < id) ++skip;
        if (skip != excluded.end() && *skip == id) continue;
        auto result = FuzzyMatcher::match(needle, store.nameBytes(id));
        if (result && result->score >= minimum) {
          slots[s].push_back(Hit{id, result->score, result->firstMatch});
        }
      }
    }
  });
  std::vector<Hit> hits;
  for (const auto& slot : slots) hits.insert(hits.end(), slot.begin(), slot.end());
  std::stable_sort(hits.begin(), hits.end(),
                   [](const Hit& a, const Hit& b) { return a.score > b.score; });
  std::vector<Match> fuzzy;
  for (size_t i = 0; i < std::min(hits.size(), limit); ++i) {
    fuzzy.push_back(Match{hits[i].id, MatchQuality::fuzzy, hits[i].offset});
  }
  return fuzzy;
}

}  // namespace tarvolin::detail
