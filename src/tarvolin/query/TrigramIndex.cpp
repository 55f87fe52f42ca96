#include "tarvolin/query/TrigramIndex.h"

#include <algorithm>
#include <cstring>
#include <system_error>

#include "tarvolin/index/IndexStore.h"
#include "tarvolin/platform/AtomicFile.h"
#include "tarvolin/platform/MappedFile.h"
#include "tarvolin/platform/Memory.h"
#include "tarvolin/platform/Precondition.h"
#include "tarvolin/query/detail/AsciiFold.h"

namespace tarvolin {

namespace {

constexpr size_t kTableEntries = size_t{1} << 24;

using detail::foldAscii;

// Calls visit(key) for every trigram of `name`, in position order.
template <typename Visit>
inline void forEachKey(std::string_view name, Visit&& visit) {
  if (name.size() < 3) return;
  const auto* bytes = reinterpret_cast<const uint8_t*>(name.data());
  uint32_t key = (foldAscii(bytes[0]) << 8) | foldAscii(bytes[1]);
  for (size_t i = 2; i < name.size(); ++i) {
    key = ((key << 8) | foldAscii(bytes[i])) & 0xFFFFFF;
    visit(key);
  }
}

// A zero-filled table of 2^24 words, straight from the kernel: only touched pages cost.
struct Table {
  platform::ZeroedPages pages{kTableEntries * sizeof(uint32_t)};
  uint32_t* words = static_cast<uint32_t*>(pages.data());
  uint32_t& operator[](uint32_t key) { return words[key]; }
};

}  // namespace

TrigramIndex::TrigramIndex() : postingStart_{0} {}

TrigramIndex TrigramIndex::build(const std::function<std::string_view(uint32_t)>& names,
                                 uint32_t count, const std::function<bool()>& isCancelled) {
  TrigramIndex index;
  index.postingStart_.clear();
  index.blockCount_ = (int64_t{count} + blockSize - 1) / blockSize;
  Table stamp;
  Table counter;
  index.keys_.reserve(100000);

  // Counting pass: counter[key] ends as the number of distinct blocks holding the key.
  for (uint32_t i = 0; i < count; ++i) {
    if (i % 65536 == 0 && isCancelled && isCancelled()) return TrigramIndex();
    uint32_t passStamp = i / blockSize + 1;
    forEachKey(names(i), [&](uint32_t key) {
      if (stamp[key] == passStamp) return;
      stamp[key] = passStamp;
      if (counter[key] == 0) index.keys_.push_back(key);
      ++counter[key];
    });
  }

  std::sort(index.keys_.begin(), index.keys_.end());
  index.postingStart_.reserve(index.keys_.size() + 1);
  uint64_t total = 0;
  for (uint32_t key : index.keys_) {
    index.postingStart_.push_back(static_cast<uint32_t>(total));
    uint32_t blocks = counter[key];
    counter[key] = static_cast<uint32_t>(total);  // becomes the write cursor
    total += blocks;
  }
  TARVOLIN_PRECONDITION(total <= 0xFFFFFFFFull);
  index.postingStart_.push_back(static_cast<uint32_t>(total));
  index.postings_.assign(total, 0);

  // Filling pass: stamps start above every stamp of the counting pass.
  uint32_t stampBase = static_cast<uint32_t>(index.blockCount_) + 2;
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t block = i / blockSize;
    uint32_t passStamp = stampBase + block;
    forEachKey(names(i), [&](uint32_t key) {
      if (stamp[key] == passStamp) return;
      stamp[key] = passStamp;
      index.postings_[counter[key]++] = block;
    });
  }
  return index;
}

TrigramIndex TrigramIndex::build(const IndexStore& store,
                                 const std::function<bool()>& isCancelled) {
  return build([&store](uint32_t id) { return store.nameBytes(id); }, store.count(), isCancelled);
}

std::optional<std::pair<const uint32_t*, const uint32_t*>> TrigramIndex::blocks(
    uint32_t key) const {
  auto found = std::lower_bound(keys_.begin(), keys_.end(), key);
  if (found == keys_.end() || *found != key) return std::nullopt;
  size_t i = static_cast<size_t>(found - keys_.begin());
  return std::make_pair(postings_.data() + postingStart_[i],
                        postings_.data() + postingStart_[i + 1]);
}

std::optional<std::vector<uint32_t>> TrigramIndex::candidateBlocks(std::string_view needle) const {
  return candidateBlocksForAll(std::span<const std::string_view>(&needle, 1));
}

std::optional<std::vector<uint32_t>> TrigramIndex::candidateBlocksForAll(
    std::span<const std::string_view> needles) const {
  using Slice = std::pair<const uint32_t*, const uint32_t*>;
  std::vector<Slice> slices;
  bool absent = false;
  for (std::string_view needle : needles) {
    if (needle.size() < minNeedleLength) continue;
    forEachKey(needle, [&](uint32_t key) {
      if (absent) return;
      auto slice = blocks(key);
      if (!slice) {
        absent = true;
        return;
      }
      slices.push_back(*slice);
    });
  }
  if (absent) return std::vector<uint32_t>();
  if (slices.empty()) return std::nullopt;
  std::stable_sort(slices.begin(), slices.end(), [](const Slice& a, const Slice& b) {
    return a.second - a.first < b.second - b.first;
  });
  std::vector<uint32_t> result(slices[0].first, slices[0].second);
  std::vector<uint32_t> merged;
  for (size_t s = 1; s < slices.size() && !result.empty(); ++s) {
    merged.clear();
    std::set_intersection(result.begin(), result.end(), slices[s].first, slices[s].second,
                          std::back_inserter(merged));
    result.swap(merged);
  }
  if (result.empty()) return result;
  double share =
      static_cast<double>(result.size()) / static_cast<double>(std::max<int64_t>(blockCount_, 1));
  if (share <= usefulnessThreshold) return result;
  return std::nullopt;
}

bool TrigramIndex::isWellFormed() const {
  if (postingStart_.size() != keys_.size() + 1 || postingStart_.front() != 0 ||
      postingStart_.back() != postings_.size()) {
    return false;
  }
  for (size_t i = 0; i < keys_.size(); ++i) {
    if (keys_[i] > 0xFFFFFF || (i > 0 && keys_[i] <= keys_[i - 1])) return false;
    uint32_t from = postingStart_[i], to = postingStart_[i + 1];
    if (from >= to || to > postings_.size()) return false;
    for (uint32_t j = from; j < to; ++j) {
      if (postings_[j] >= blockCount_ || (j > from && postings_[j] <= postings_[j - 1])) {
        return false;
      }
    }
  }
  return true;
}

std::pair<uint32_t, uint32_t> TrigramIndex::range(uint32_t block, uint32_t recordCount) {
  uint64_t start = uint64_t{block} * blockSize;
  uint64_t end = std::min<uint64_t>(start + blockSize, recordCount);
  start = std::min<uint64_t>(start, recordCount);
  return {static_cast<uint32_t>(start), static_cast<uint32_t>(end)};
}

void TrigramIndex::write(const std::filesystem::path& url, uint64_t storeChecksum) const {
  TARVOLIN_PRECONDITION(blockCount_ >= 0 && blockCount_ <= 0xFFFFFFFFll);
  TARVOLIN_PRECONDITION(keys_.size() <= 0xFFFFFFFFull && postings_.size() <= 0xFFFFFFFFull);
  std::vector<uint32_t> words;
  words.reserve(8 + keys_.size() + postingStart_.size() + postings_.size());
  words.insert(words.end(),
               {fileMagic, fileVersion, static_cast<uint32_t>(storeChecksum),
                static_cast<uint32_t>(storeChecksum >> 32), static_cast<uint32_t>(blockCount_),
                static_cast<uint32_t>(keys_.size()), static_cast<uint32_t>(postings_.size()), 0});
  words.insert(words.end(), keys_.begin(), keys_.end());
  words.insert(words.end(), postingStart_.begin(), postingStart_.end());
  words.insert(words.end(), postings_.begin(), postings_.end());
  platform::AtomicFile::replaceContents(
      url, {reinterpret_cast<const uint8_t*>(words.data()), words.size() * 4});
}

std::optional<TrigramIndex> TrigramIndex::load(const std::filesystem::path& url,
                                               uint64_t storeChecksum) {
  platform::MappedFile file;
  try {
    file = platform::MappedFile::open(url, /*populate=*/true);
  } catch (const std::system_error&) {
    return std::nullopt;
  }
  if (file.size() < 32) return std::nullopt;
  uint64_t wordCount = file.size() / 4;
  auto word = [&](uint64_t i) {
    uint32_t value;
    std::memcpy(&value, file.data() + 4 * i, 4);
    return value;
  };
  uint64_t checksum = word(2) | (uint64_t{word(3)} << 32);
  uint64_t k = word(5), p = word(6);
  if (word(0) != fileMagic || word(1) != fileVersion || checksum != storeChecksum ||
      wordCount != 2 * k + 9 + p) {
    return std::nullopt;
  }
  TrigramIndex index;
  index.blockCount_ = word(4);
  auto copy = [&](uint64_t from, uint64_t n) {
    std::vector<uint32_t> out(n);
    if (n != 0) std::memcpy(out.data(), file.data() + 4 * from, 4 * n);  // empty: no pointer
    return out;
  };
  index.keys_ = copy(8, k);
  index.postingStart_ = copy(8 + k, k + 1);
  index.postings_ = copy(9 + 2 * k, p);
  if (!index.isWellFormed()) return std::nullopt;
  return index;
}

}  // namespace tarvolin
