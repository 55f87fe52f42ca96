#include "tarvolin/query/detail/Sharding.h"

namespace tarvolin::detail {

size_t shardCount(size_t n) {
  if (n < shardUnit) return 1;
  return std::max<size_t>(1, std::min<size_t>(n / shardUnit, platform::activeProcessorCount()));
}

std::vector<Match> joined(std::vector<ShardList>& slots) {
  if (slots.empty()) return {};
  std::vector<Match> all = std::move(slots[0].matches);
  size_t total = all.size();
  for (size_t s = 1; s < slots.size(); ++s) total += slots[s].matches.size();
  all.reserve(total);
  for (size_t s = 1; s < slots.size(); ++s) {
    all.insert(all.end(), slots[s].matches.begin(), slots[s].matches.end());
  }
  return all;
}

}  // namespace tarvolin::detail
