#pragma once
// How the matcher spreads a scan over processors: [0, n) is cut into consecutive shards of
// about 10000 records (one shard below that, at most one per processor), every shard fills its
// own list, and the lists are joined in shard order, so a result is in record order whatever
// the timing.
//
// Called from the matcher's thread; the bodies run on the platform's workers at once and must
// only write their own shard's list.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tarvolin/platform/Concurrency.h"
#include "tarvolin/query/Match.h"

namespace tarvolin::detail {

/// Records per shard of a parallel scan.
inline constexpr uint32_t shardUnit = 10000;

/// Number of shards for a scan of `n` items: one below the shard unit, else one per 10000
/// items, at most one per processor.
size_t shardCount(size_t n);

/// Cuts [0, n) into shardCount(n) consecutive ranges and runs body(shard, begin, end) for each,
/// concurrently when there are several; returns the number of shards.
template <typename Body>
size_t forEachShard(size_t n, Body&& body) {
  size_t shards = shardCount(n);
  if (shards <= 1) {
    body(size_t{0}, size_t{0}, n);
    return 1;
  }
  size_t chunk = (n + shards - 1) / shards;
  platform::concurrentPerform(shards, [&](size_t s) {
    size_t begin = std::min(n, s * chunk);
    body(s, begin, std::min(n, begin + chunk));
  });
  return shards;
}

/// One shard's list, alone on its cache line. A list's end is written at every match it takes;
/// lists side by side shared a line, which the threads then took turns to own, and a scan with
/// a match in most names ran at half its speed.
struct alignas(64) ShardList {
  std::vector<Match> matches;
};

/// The lists of `slots` one after the other, in the first one's storage when it has room.
std::vector<Match> joined(std::vector<ShardList>& slots);

/// Runs body(begin, end, out) over [0, n) in shards and joins the results in shard order. Every
/// shard's list is reserved for its whole range up front (the first for all of [0, n), since
/// the others are appended to it): a reservation is only address space until it is written, so
/// this costs nothing, while growing a list by doubling copies it and touches fresh pages each
/// time. The reservations are made here, so that a scan allocates nothing on the other threads
/// (a thread's first allocation sets up its own heap, a noticeable part of a short search).
template <typename Body>
std::vector<Match> sharded(size_t n, Body&& body) {
  std::vector<ShardList> slots(shardCount(n));
  slots[0].matches.reserve(n);
  for (size_t s = 1; s < slots.size(); ++s) {
    slots[s].matches.reserve((n + slots.size() - 1) / slots.size());
  }
  size_t shards = forEachShard(
      n, [&](size_t s, size_t begin, size_t end) { body(begin, end, slots[s].matches); });
  slots.resize(shards);
  return joined(slots);
}

}  // namespace tarvolin::detail
