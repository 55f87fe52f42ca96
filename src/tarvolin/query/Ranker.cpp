#include "tarvolin/query/Ranker.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <limits>
#include <new>
#include <stdexcept>
#include <utility>

#include "tarvolin/index/ParentWalk.h"
#include "tarvolin/platform/Concurrency.h"
#include "tarvolin/platform/Memory.h"

namespace tarvolin {

namespace {
constexpr uint32_t kComputed = 1u << 31;
constexpr uint32_t kDemoted = 1u << 30;
constexpr uint32_t kAppAbove = 1u << 29;
constexpr uint32_t kDepthMask = (1u << 29) - 1;

// Rankings of at least this many matches use the flat memo from the start; the open-addressing
// memo moves to it when it holds more than kSparseLimit folders. Chosen with BM_Ranker_Rank
// (bench/MatcherBench.cpp: 2 M records in about 100000 folders, matches spread evenly; CPU time,
// median of 5): the flat memo costs 0.85 ms for 300 matches where the small one takes 0.29 ms,
// and 1.3 ms against 1.1 ms for 4096; from there on it wins, 2.0 ms against 3.2 ms for 20000
// (with the small memo moving over at 16384 folders; one that never moves takes 5.4 ms) and
// 18 ms against 27 ms for 1 M.
constexpr size_t kFlatFromMatches = 4096;
constexpr size_t kSparseLimit = 16384;

// A match's parent and up to 256 folders above it: the step limit of every walk up the tree.
constexpr size_t kWalkRecords = ParentWalk::maxDepth + 1;

inline size_t slotOf(uint32_t id, size_t mask) {
  return static_cast<size_t>((uint64_t{id} * 0x9E3779B97F4A7C15ull) >> 32) & mask;
}

// Rankings by the score table of at least this many matches run in shards, one per processor.
constexpr size_t kShardedRankingFrom = 65536;

// The best results offered to it, at most `capacity`, ascending by score. Among equal scores the
// one offered first ends ahead: a new one goes before its equals, is never kept over an equal
// one when the list is full, and the one dropped is the lowest offered last.
class BestList {
 public:
  explicit BestList(size_t capacity) : capacity_(capacity) { kept_.reserve(capacity + 1); }

  void offer(const Match& match, int32_t score) {
    if (kept_.size() == capacity_) {
      if (capacity_ == 0 || kept_.front().score >= score) return;
      kept_.erase(kept_.begin());
    }
    auto below = [](const RankedResult& r, int32_t v) { return r.score < v; };
    kept_.insert(std::lower_bound(kept_.begin(), kept_.end(), score, below),
                 RankedResult{match, score});
  }

  /// The score a match must beat to be kept: the worst kept one's once the list is full (an
  /// equal score came later and loses), below every score before.
  int64_t floor() const {
    if (kept_.size() < capacity_) return std::numeric_limits<int64_t>::min();
    return capacity_ == 0 ? std::numeric_limits<int64_t>::max() : kept_.front().score;
  }

  /// Best first.
  std::vector<RankedResult> best() && {
    std::reverse(kept_.begin(), kept_.end());
    return std::move(kept_);
  }

 private:
  size_t capacity_;
  std::vector<RankedResult> kept_;
};

constexpr size_t kBuckets = 5;
}  // namespace

const std::vector<std::string_view>& Ranker::demotedPathComponents() {
  static const std::vector<std::string_view> names = {"node_modules",   ".git",
                                                      "Caches",         "DerivedData",
                                                      "Pods",           ".build",
                                                      "build",          "dist",
                                                      "vendor",         "site-packages",
                                                      "Containers",     "Group Containers",
                                                      "TemporaryItems", "SyncedPreferences",
                                                      "Biome",          "CoreSimulator",
                                                      "Developer",      "Logs",
                                                      "CrashReporter"};
  return names;
}

bool Ranker::isDemotedName(std::string_view bytes) {
  // Quick length filter: the names are 4 to 17 bytes long.
  if (bytes.size() < 4 || bytes.size() > 17) return false;
  for (std::string_view name : demotedPathComponents()) {
    if (name == bytes) return true;
  }
  return false;
}

Ranker::Ranker(std::shared_ptr<const IndexStore> store) : store_(std::move(store)) {}

std::shared_ptr<const std::vector<int32_t>> Ranker::scoresOf(
    std::shared_ptr<const IndexStore> store) {
  Ranker ranker(store);
  ranker.makeFlat();
  auto scores = std::make_shared<std::vector<int32_t>>(store->count());
  // Every other record's score is at most zero, and an application's stays above it unless it
  // lies thousands of folders deep, which no real path does: then the table also tells the
  // applications. When one does, there is no table, and rankings walk the folders.
  for (uint32_t id = 0; id < store->count(); ++id) {
    int32_t score = ranker.score(Match{id, MatchQuality::substring, 0});
    if ((*store)[id].flags.contains(RecordFlags::isApp) != (score > 0)) return nullptr;
    (*scores)[id] = score;
  }
  return scores;
}

void Ranker::useScores(std::shared_ptr<const std::vector<int32_t>> scores) {
  if (scores && scores->size() != store_->count()) {
    throw std::invalid_argument("the scores are not the store's");
  }
  scores_ = std::move(scores);
}

Ranker::AncestorInfo Ranker::ancestorInfo(uint32_t id) {
  auto unpack = [](uint32_t packed) {
    return AncestorInfo{static_cast<int32_t>(packed & kDepthMask), (packed & kDemoted) != 0,
                        (packed & kAppAbove) != 0};
  };
  uint32_t cached = remembered(id);
  if (cached & kComputed) return unpack(cached);
  // Up from `id` to the first folder already known, the top, or the step limit; then down again,
  // each folder's entry from the one above it.
  std::array<uint32_t, kWalkRecords> chain;
  size_t length = 0;
  AncestorInfo above{-1, false, false};  // above the topmost folder walked: nothing
  for (ParentWalk walk(store_->records(), id, kWalkRecords); walk.valid(); walk.next()) {
    uint32_t known = length == 0 ? cached : remembered(walk.id());
    if (known & kComputed) {
      above = unpack(known);
      break;
    }
    chain[length++] = walk.id();
  }
  AncestorInfo info{};
  while (length > 0) {
    uint32_t folder = chain[--length];
    const FileRecord& record = (*store_)[folder];
    info = {above.depth + 1, above.demotedThrough || isDemotedName(store_->nameBytes(folder)),
            above.appThrough || record.flags.contains(RecordFlags::isApp)};
    remember(folder, kComputed | (info.demotedThrough ? kDemoted : 0) |
                         (info.appThrough ? kAppAbove : 0) |
                         (static_cast<uint32_t>(info.depth) & kDepthMask));
    above = info;
  }
  return info;
}

int32_t Ranker::score(const Match& match) {
  int32_t offset = std::clamp<int32_t>(match.matchOffset, 0, maxOffsetPenalty);
  if (scores_) return (*scores_)[match.id] - offset;
  const FileRecord& record = (*store_)[match.id];
  bool hidden = record.flags.contains(RecordFlags::isHidden);
  int32_t depth = 0;
  bool demoted = false;
  bool insideApp = false;
  if (record.parentID != FileRecord::rootParentID) {
    AncestorInfo parent = ancestorInfo(record.parentID);
    depth = parent.depth + 1;
    demoted = parent.demotedThrough;
    insideApp = parent.appThrough;
  }
  int32_t base;
  if (record.flags.contains(RecordFlags::isApp)) {
    base = appScore - (hidden ? hiddenPenalty : 0);
  } else {
    base = hidden ? -hiddenPenalty : 0;
    if (insideApp) base = -insideAppPenalty - (hidden ? hiddenPenalty : 0);
  }
  return base - depthPenalty * depth - offset - (demoted ? demotedPenalty : 0);
}

std::vector<RankedResult> Ranker::topK(const std::vector<Match>& matches,
                                       const std::vector<uint8_t>& buckets, uint8_t bucket,
                                       int64_t k) {
  if (k < 1) return {};
  BestList list(static_cast<size_t>(std::min<int64_t>(k, static_cast<int64_t>(matches.size()))));
  for (size_t i = 0; i < matches.size(); ++i) {
    if (buckets[i] == bucket) list.offer(matches[i], score(matches[i]));
  }
  return std::move(list).best();
}

void Ranker::prepareCache(size_t matchCount) {
  if (directoryCache_ == nullptr && matchCount >= kFlatFromMatches) makeFlat();
}

uint32_t Ranker::remembered(uint32_t id) const {
  if (directoryCache_ != nullptr) return directoryCache_[id];
  if (sparseCache_.empty()) return 0;
  size_t mask = sparseCache_.size() - 1;
  for (size_t slot = slotOf(id, mask);; slot = (slot + 1) & mask) {
    uint64_t entry = sparseCache_[slot];
    if (entry == 0) return 0;
    if (entry >> 32 == uint64_t{id} + 1) return static_cast<uint32_t>(entry);
  }
}

void Ranker::remember(uint32_t id, uint32_t packed) {
  if (directoryCache_ != nullptr) {
    directoryCache_[id] = packed;
    return;
  }
  if (sparseCount_ >= kSparseLimit) {
    makeFlat();
    directoryCache_[id] = packed;
    return;
  }
  if (sparseCache_.empty() || 2 * (sparseCount_ + 1) > sparseCache_.size()) {
    // Grow to keep the table at most half full; entries are only ever added.
    size_t size = std::bit_ceil(std::max<size_t>(1024, 4 * sparseCount_));
    std::vector<uint64_t> old = std::exchange(sparseCache_, std::vector<uint64_t>(size));
    sparseCount_ = 0;
    for (uint64_t entry : old) {
      if (entry != 0)
        remember(static_cast<uint32_t>((entry >> 32) - 1), static_cast<uint32_t>(entry));
    }
  }
  size_t mask = sparseCache_.size() - 1;
  uint64_t key = uint64_t{id} + 1;
  for (size_t slot = slotOf(id, mask);; slot = (slot + 1) & mask) {
    uint64_t& entry = sparseCache_[slot];
    if (entry == 0) ++sparseCount_;
    if (entry == 0 || entry >> 32 == key) {
      entry = key << 32 | packed;
      return;
    }
  }
}

void Ranker::makeFlat() {
  size_t bytes = std::max<size_t>(store_->count(), 1) * sizeof(uint32_t);
  cachePages_ = platform::ZeroedPages(bytes);
  directoryCache_ = static_cast<uint32_t*>(cachePages_.data());
  // The flat memo serves many matches, which touch most of its pages: backing them in one call
  // is far cheaper than a fault each (BM_Ranker_Rank/20000: 2.0 ms CPU, 11.4 ms without it;
  // BM_Ranker_Rank/1000000: 18.7 ms against 23.5 ms).
  platform::prefaultForWriting(directoryCache_, bytes);
  for (uint64_t entry : sparseCache_) {
    if (entry != 0) directoryCache_[(entry >> 32) - 1] = static_cast<uint32_t>(entry);
  }
  sparseCache_ = {};
  sparseCount_ = 0;
}

std::vector<RankedResult> Ranker::rankByTable(const std::vector<Match>& matches,
                                              int64_t limit) const {
  const std::vector<int32_t>& table = *scores_;
  const auto capacity =
      static_cast<size_t>(std::min<int64_t>(limit, static_cast<int64_t>(matches.size())));
  // Each shard keeps the best of each bucket among its consecutive run of matches.
  using Buckets = std::array<std::vector<RankedResult>, kBuckets>;
  size_t shards = matches.size() < kShardedRankingFrom ? 1 : platform::activeProcessorCount();
  size_t chunk = (matches.size() + shards - 1) / shards;
  std::vector<Buckets> partial(shards);
  auto reduce = [&](size_t shard) {
    std::array<BestList, kBuckets> lists{BestList(capacity), BestList(capacity), BestList(capacity),
                                         BestList(capacity), BestList(capacity)};
    // Each list's floor beside it, in registers: once the lists are full nearly every match
    // falls below its floor, and is dismissed after one comparison.
    std::array<int64_t, kBuckets> floors;
    for (size_t b = 0; b < kBuckets; ++b) floors[b] = lists[b].floor();
    size_t end = std::min(matches.size(), (shard + 1) * chunk);
    for (size_t i = shard * chunk; i < end; ++i) {
      const Match& match = matches[i];
      int32_t base = table[match.id];
      auto bucket = static_cast<size_t>(match.quality);
      // An application's table score is above zero and no other record's is (scoresOf).
      if (match.quality <= MatchQuality::wordBoundary && base > 0) bucket = 0;
      int32_t score = base - std::clamp<int32_t>(match.matchOffset, 0, maxOffsetPenalty);
      if (score <= floors[bucket]) continue;
      lists[bucket].offer(match, score);
      floors[bucket] = lists[bucket].floor();
    }
    for (size_t b = 0; b < kBuckets; ++b) partial[shard][b] = std::move(lists[b]).best();
  };
  if (shards == 1) {
    reduce(0);
  } else {
    platform::concurrentPerform(shards, reduce);
  }
  // Bucket by bucket, the shards' best merged: the higher score first, and among equal scores
  // the earlier shard's (its matches came first), as one pass over all of them would keep them.
  std::vector<RankedResult> results;
  results.reserve(capacity);
  for (size_t b = 0; b < kBuckets && results.size() < capacity; ++b) {
    std::vector<size_t> next(shards, 0);
    while (results.size() < capacity) {
      size_t from = shards;
      for (size_t s = 0; s < shards; ++s) {
        if (next[s] < partial[s][b].size() &&
            (from == shards || partial[s][b][next[s]].score > partial[from][b][next[from]].score)) {
          from = s;
        }
      }
      if (from == shards) break;
      results.push_back(partial[from][b][next[from]++]);
    }
  }
  return results;
}

std::vector<RankedResult> Ranker::rank(const std::vector<Match>& matches, int64_t limit) {
  if (limit < 1 || matches.empty()) return {};
  if (scores_) return rankByTable(matches, limit);
  prepareCache(matches.size());
  // Bucket = quality, except that applications matched at a word boundary or better join the
  // exact ones. Buckets are noted once; each is then reduced in a pass over the matches, so no
  // match is ever copied.
  std::vector<uint8_t> buckets(matches.size());
  std::array<size_t, 5> sizes{};
  for (size_t i = 0; i < matches.size(); ++i) {
    const Match& match = matches[i];
    auto bucket = static_cast<uint8_t>(match.quality);
    if (match.quality <= MatchQuality::wordBoundary &&
        (scores_ ? (*scores_)[match.id] > 0
                 : (*store_)[match.id].flags.contains(RecordFlags::isApp))) {
      bucket = 0;
    }
    buckets[i] = bucket;
    ++sizes[bucket];
  }
  std::vector<RankedResult> results;
  results.reserve(
      static_cast<size_t>(std::min<int64_t>(limit, static_cast<int64_t>(matches.size()))));
  for (uint8_t bucket = 0; bucket < sizes.size(); ++bucket) {
    int64_t remaining = limit - static_cast<int64_t>(results.size());
    if (remaining <= 0 || sizes[bucket] == 0) continue;
    std::vector<RankedResult> best = topK(matches, buckets, bucket, remaining);
    results.insert(results.end(), best.begin(), best.end());
  }
  return results;
}

}  // namespace tarvolin
