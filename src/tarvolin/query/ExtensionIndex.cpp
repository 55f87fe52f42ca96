#include "tarvolin/query/ExtensionIndex.h"

#include "tarvolin/index/IndexStore.h"
#include "tarvolin/query/detail/Extensions.h"

namespace tarvolin {

namespace {

constexpr uint32_t kPollInterval = 65536;
// Buckets of the first pass's counts: a bucket holds the count of every extension that hashes
// to it, so an extension whose bucket stays below the minimum is certainly rarer than that.
constexpr size_t kCountBuckets = size_t{1} << 20;
constexpr uint32_t kNoGroup = UINT32_MAX;

// The name's extension, ASCII lower-cased into `key` (reused, so a key allocates nothing);
// false when it has none.
bool extensionKey(std::string_view name, std::string& key) {
  std::optional<std::string_view> extension = detail::extensionOf(name);
  if (!extension) return false;
  key.assign(*extension);
  for (char& c : key) c = static_cast<char>(detail::foldAscii(static_cast<uint8_t>(c)));
  return true;
}

}  // namespace

std::optional<ExtensionIndex> ExtensionIndex::build(const IndexStore& store,
                                                    const std::function<bool()>& isCancelled) {
  const uint32_t n = store.count();
  std::hash<std::string> hash;
  std::string key;
  auto visit = [&](auto&& body) -> bool {
    for (uint32_t id = 0; id < n; ++id) {
      if (id % kPollInterval == 0 && isCancelled()) return false;
      if (store[id].flags.contains(RecordFlags::deleted)) continue;
      if (extensionKey(store.nameBytes(id), key)) body(id);
    }
    return true;
  };

  // Pass 1: counts per hash bucket.
  std::vector<uint32_t> bucketCounts(kCountBuckets, 0);
  if (!visit([&](uint32_t) { ++bucketCounts[hash(key) % kCountBuckets]; })) return std::nullopt;

  // Pass 2: the extensions of full buckets get a group number; each record notes its group.
  std::unordered_map<std::string, uint32_t> numbers;
  std::vector<uint32_t> counts;
  std::vector<uint32_t> groupOf(n, kNoGroup);
  bool complete = visit([&](uint32_t id) {
    if (bucketCounts[hash(key) % kCountBuckets] < minimumGroup) return;
    auto [it, added] = numbers.try_emplace(key, static_cast<uint32_t>(counts.size()));
    if (added) counts.push_back(0);
    ++counts[it->second];
    groupOf[id] = it->second;
  });
  if (!complete) return std::nullopt;
  bucketCounts = {};

  // Groups of at least the minimum are laid out one after another, each in ID order.
  ExtensionIndex index;
  index.recordCount_ = n;
  std::vector<uint32_t> next(counts.size(), kNoGroup);
  uint32_t total = 0;
  for (auto& [extension, number] : numbers) {
    if (counts[number] < minimumGroup) continue;
    index.groups_.emplace(extension, Group{total, total + counts[number]});
    next[number] = total;
    total += counts[number];
  }
  index.ids_.resize(total);
  for (uint32_t id = 0; id < n; ++id) {
    uint32_t group = groupOf[id];
    if (group != kNoGroup && next[group] != kNoGroup) index.ids_[next[group]++] = id;
  }
  return index;
}

std::optional<std::span<const uint32_t>> ExtensionIndex::records(std::string_view lowered) const {
  auto it = groups_.find(std::string(lowered));
  if (it == groups_.end()) return std::nullopt;
  return std::span<const uint32_t>(ids_).subspan(it->second.begin,
                                                 it->second.end - it->second.begin);
}

size_t ExtensionIndex::byteSize() const {
  size_t bytes = ids_.size() * sizeof(uint32_t);
  for (const auto& [extension, group] : groups_) bytes += extension.size() + 64;
  return bytes;
}

}  // namespace tarvolin
