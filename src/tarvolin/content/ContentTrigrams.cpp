#include "tarvolin/content/ContentTrigrams.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <system_error>

#include "tarvolin/index/FastHash64.h"
#include "tarvolin/platform/Concurrency.h"
#include "tarvolin/platform/MappedFile.h"
#include "tarvolin/platform/Memory.h"

namespace tarvolin {

namespace {

constexpr size_t kKeyCount = size_t{1} << 24;
// Below this much text one thread summarises everything: waking the others costs more.
constexpr size_t kParallelBytes = size_t{8} << 20;
// From this much text on, the tables are backed by huge pages (clearing a 2 MiB page costs
// more than a small index would ever touch).
constexpr size_t kHugePageBytes = size_t{1} << 20;

uint32_t load32(const uint8_t* bytes) {
  uint32_t value;
  std::memcpy(&value, bytes, 4);
  return value;
}

uint64_t load64(const uint8_t* bytes) {
  uint64_t value;
  std::memcpy(&value, bytes, 8);
  return value;
}

void append32(std::vector<uint8_t>& out, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

void append64(std::vector<uint8_t>& out, uint64_t value) {
  for (int shift = 0; shift < 64; shift += 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

size_t varintBytes(uint32_t value) {
  size_t bytes = 1;
  while (value >= 0x80) {
    value >>= 7;
    ++bytes;
  }
  return bytes;
}

uint8_t* putVarint(uint8_t* out, uint32_t value) {
  while (value >= 0x80) {
    *out++ = static_cast<uint8_t>(value | 0x80);
    value >>= 7;
  }
  *out++ = static_cast<uint8_t>(value);
  return out;
}

// Reads one posting list in order, refusing anything a writer could not have produced in
// bounds: a varint past the slice or wider than 32 bits, an ordinal not above the previous one
// or not below the document count.
class ListReader {
 public:
  ListReader(std::span<const uint8_t> list, uint32_t documentCount)
      : at_(list.data()), end_(list.data() + list.size()), documentCount_(documentCount) {}

  bool atEnd() const { return at_ == end_; }
  bool failed() const { return failed_; }

  /// The next ordinal; false at the end of the list or on malformed bytes (see failed()).
  bool next(uint32_t& ordinal) {
    if (at_ == end_) return false;
    uint64_t value = 0;
    for (int shift = 0;; shift += 7) {
      if (at_ == end_ || shift > 28) return fail();
      uint8_t byte = *at_++;
      value |= uint64_t{byte & 0x7Fu} << shift;
      if ((byte & 0x80) == 0) break;
    }
    uint64_t candidate = next_ + value;
    if (candidate >= documentCount_) return fail();
    ordinal = static_cast<uint32_t>(candidate);
    next_ = candidate + 1;
    return true;
  }

 private:
  bool fail() {
    failed_ = true;
    return false;
  }

  const uint8_t* at_;
  const uint8_t* end_;
  uint64_t documentCount_;
  uint64_t next_ = 0;  // the smallest ordinal the next entry may hold
  bool failed_ = false;
};

struct Range {
  size_t start = 0;
  size_t end = 0;
};

// A document's range clamped to the blob, empty when negative or outside: the ranges a search
// scans, so that the summary covers exactly the bytes a match can lie in.
Range clampedRange(const ContentIndex::Document& document, size_t blobSize) {
  if (document.offset < 0 || document.length < 0) return {};
  auto start = static_cast<uint64_t>(document.offset);
  if (start >= blobSize) return {};
  uint64_t length = std::min<uint64_t>(static_cast<uint64_t>(document.length), blobSize - start);
  return {static_cast<size_t>(start), static_cast<size_t>(start + length)};
}

// Calls visit(key) for every 3-byte sequence of `bytes`, in position order.
template <typename Visit>
inline void forEachKey(const uint8_t* bytes, size_t size, Visit&& visit) {
  if (size < 3) return;
  uint32_t key = (uint32_t{bytes[0]} << 8) | bytes[1];
  for (size_t i = 2; i < size; ++i) {
    key = ((key << 8) | bytes[i]) & 0xFFFFFF;
    visit(key);
  }
}

// One run of consecutive documents, summarised by one thread. `stamp` remembers the last
// document that counted a key, so each document counts a key once; `counts` holds how many
// documents of the run hold each key and later becomes the run's write cursor per key.
// Alone on its cache lines: each thread appends to its own shard's keys, and shards side by side
// would share a line that the threads take turns to own.
struct alignas(64) Shard {
  uint32_t first = 0;
  uint32_t end = 0;
  platform::ZeroedPages stampPages;
  platform::ZeroedPages countPages;
  std::vector<uint32_t> keys;  // the keys this run holds, in first-seen order

  uint32_t* stamp() const { return static_cast<uint32_t*>(stampPages.data()); }
  uint32_t* counts() const { return static_cast<uint32_t*>(countPages.data()); }
};

}  // namespace

ContentTrigrams::Identity ContentTrigrams::identityOf(uint64_t contentBytes,
                                                      std::span<const uint8_t> lengthAndTable,
                                                      uint32_t documentCount) {
  return Identity{contentBytes, FastHash64::hash(lengthAndTable), documentCount};
}

std::vector<uint8_t> ContentTrigrams::encode(std::span<const ContentIndex::Document> documents,
                                             std::span<const uint8_t> blob,
                                             const Identity& identity) {
  const auto documentCount = static_cast<uint32_t>(documents.size());
  std::vector<Range> ranges(documents.size());
  uint64_t total = 0;
  for (size_t d = 0; d < documents.size(); ++d) {
    ranges[d] = clampedRange(documents[d], blob.size());
    total += ranges[d].end - ranges[d].start;
  }

  // Runs of consecutive documents holding about the same amount of text, one per processor.
  size_t shardCount = total < kParallelBytes ? 1 : platform::activeProcessorCount();
  shardCount = std::max<size_t>(1, std::min<size_t>(shardCount, documents.size()));
  std::vector<Shard> shards(shardCount);
  {
    uint64_t covered = 0;
    size_t s = 0;
    for (uint32_t d = 0; d < documentCount && s + 1 < shardCount; ++d) {
      covered += ranges[d].end - ranges[d].start;
      if (covered * shardCount >= total * (s + 1)) shards[++s].first = d + 1;
    }
    for (size_t i = 0; i < shardCount; ++i) {
      shards[i].end = i + 1 < shardCount ? shards[i + 1].first : documentCount;
    }
  }

  // Counting pass: per run, how many of its documents hold each key.
  platform::concurrentPerform(shardCount, [&](size_t s) {
    Shard& shard = shards[s];
    shard.stampPages = platform::ZeroedPages(kKeyCount * sizeof(uint32_t));
    shard.countPages = platform::ZeroedPages(kKeyCount * sizeof(uint32_t));
    // Text touches the tables all over a few dense regions (the first byte's range): huge pages
    // take one fault and one TLB entry where small ones take hundreds.
    if (total >= kHugePageBytes) {
      platform::adviseFillingSoon(shard.stampPages.data(), shard.stampPages.size());
      platform::adviseFillingSoon(shard.countPages.data(), shard.countPages.size());
    }
    uint32_t* stamp = shard.stamp();
    uint32_t* counts = shard.counts();
    for (uint32_t d = shard.first; d < shard.end; ++d) {
      const uint32_t mark = d + 1;
      forEachKey(blob.data() + ranges[d].start, ranges[d].end - ranges[d].start, [&](uint32_t key) {
        if (stamp[key] == mark) return;
        stamp[key] = mark;
        if (counts[key]++ == 0) shard.keys.push_back(key);
      });
    }
    std::sort(shard.keys.begin(), shard.keys.end());
  });

  // Every key once, ascending; each run's counts become its write cursor into `postings`,
  // which holds each key's documents run after run, so every list comes out ascending.
  std::vector<uint32_t> keys;
  for (const Shard& shard : shards) {
    std::vector<uint32_t> merged;
    merged.reserve(keys.size() + shard.keys.size());
    std::set_union(keys.begin(), keys.end(), shard.keys.begin(), shard.keys.end(),
                   std::back_inserter(merged));
    keys.swap(merged);
  }
  std::vector<uint64_t> listStart(keys.size() + 1);
  uint64_t postingCount = 0;
  for (size_t i = 0; i < keys.size(); ++i) {
    listStart[i] = postingCount;
    for (Shard& shard : shards) {
      uint32_t& count = shard.counts()[keys[i]];
      uint64_t runCount = count;
      count = static_cast<uint32_t>(postingCount);
      postingCount += runCount;
    }
    if (postingCount > std::numeric_limits<uint32_t>::max()) return {};  // too large to summarise
  }
  listStart[keys.size()] = postingCount;
  std::vector<uint32_t> postings(postingCount);

  // Filling pass: marks start above every mark of the counting pass.
  platform::concurrentPerform(shardCount, [&](size_t s) {
    Shard& shard = shards[s];
    uint32_t* stamp = shard.stamp();
    uint32_t* cursor = shard.counts();
    for (uint32_t d = shard.first; d < shard.end; ++d) {
      const uint32_t mark = documentCount + 1 + d;
      forEachKey(blob.data() + ranges[d].start, ranges[d].end - ranges[d].start, [&](uint32_t key) {
        if (stamp[key] == mark) return;
        stamp[key] = mark;
        postings[cursor[key]++] = d;
      });
    }
  });
  shards.clear();  // the tables go back to the kernel before the file image is made

  // Each list delta-coded: an entry holds its ordinal minus the previous one minus 1.
  std::vector<uint64_t> byteStart(keys.size() + 1);
  uint64_t postingBytes = 0;
  for (size_t i = 0; i < keys.size(); ++i) {
    byteStart[i] = postingBytes;
    uint32_t next = 0;
    for (uint64_t p = listStart[i]; p < listStart[i + 1]; ++p) {
      postingBytes += varintBytes(postings[p] - next);
      next = postings[p] + 1;
    }
  }
  byteStart[keys.size()] = postingBytes;

  std::vector<uint8_t> file;
  file.reserve(headerBytes + 4 * keys.size() + 8 * byteStart.size() + postingBytes);
  append32(file, fileMagic);
  append32(file, fileVersion);
  append64(file, identity.contentBytes);
  append64(file, identity.tableHash);
  append32(file, identity.documentCount);
  append32(file, static_cast<uint32_t>(keys.size()));
  append64(file, postingBytes);
  for (uint32_t key : keys) append32(file, key);
  for (uint64_t start : byteStart) append64(file, start);
  size_t listsAt = file.size();
  file.resize(listsAt + postingBytes);
  uint8_t* out = file.data() + listsAt;
  for (size_t i = 0; i < keys.size(); ++i) {
    uint32_t next = 0;
    for (uint64_t p = listStart[i]; p < listStart[i + 1]; ++p) {
      out = putVarint(out, postings[p] - next);
      next = postings[p] + 1;
    }
  }
  return file;
}

std::optional<ContentTrigrams> ContentTrigrams::open(const std::filesystem::path& path,
                                                     const Identity& identity) {
  std::shared_ptr<const platform::MappedFile> mapped;
  try {
    // Not populated: a query reads a few pages of keys and a few lists.
    mapped = std::make_shared<const platform::MappedFile>(platform::MappedFile::open(path, false));
  } catch (const std::system_error&) {
    return std::nullopt;
  }
  std::optional<ContentTrigrams> trigrams = view(mapped->bytes(), identity);
  if (trigrams) trigrams->mapped_ = std::move(mapped);
  return trigrams;
}

std::optional<ContentTrigrams> ContentTrigrams::view(std::span<const uint8_t> file,
                                                     const Identity& identity) {
  if (file.size() < headerBytes) return std::nullopt;
  const uint8_t* bytes = file.data();
  const uint64_t keyCount = load32(bytes + 28);
  const uint64_t postingBytes = load64(bytes + 32);
  if (load32(bytes) != fileMagic || load32(bytes + 4) != fileVersion ||
      load64(bytes + 8) != identity.contentBytes || load64(bytes + 16) != identity.tableHash ||
      load32(bytes + 24) != identity.documentCount || keyCount > kKeyCount) {
    return std::nullopt;
  }
  const uint64_t directoryBytes = headerBytes + 4 * keyCount + 8 * (keyCount + 1);
  if (file.size() < directoryBytes || file.size() - directoryBytes != postingBytes) {
    return std::nullopt;
  }
  const uint8_t* starts = bytes + headerBytes + 4 * keyCount;
  if (load64(starts) != 0 || load64(starts + 8 * keyCount) != postingBytes) return std::nullopt;
  ContentTrigrams trigrams;
  trigrams.file_ = file;
  trigrams.documentCount_ = identity.documentCount;
  trigrams.keyCount_ = static_cast<uint32_t>(keyCount);
  trigrams.postingBytes_ = postingBytes;
  return trigrams;
}

std::optional<std::span<const uint8_t>> ContentTrigrams::postingsOf(uint32_t key) const {
  const uint8_t* keys = file_.data() + headerBytes;
  size_t low = 0, high = keyCount_;
  while (low < high) {
    size_t middle = low + (high - low) / 2;
    if (load32(keys + 4 * middle) < key) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  if (low == keyCount_ || load32(keys + 4 * low) != key) return std::span<const uint8_t>();
  const uint8_t* starts = keys + 4 * size_t{keyCount_};
  uint64_t from = load64(starts + 8 * low);
  uint64_t to = load64(starts + 8 * (low + 1));
  if (from >= to || to > postingBytes_) return std::nullopt;  // a key's list is never empty
  const uint8_t* lists = starts + 8 * (size_t{keyCount_} + 1);
  return std::span<const uint8_t>(lists + from, static_cast<size_t>(to - from));
}

std::optional<std::vector<uint32_t>> ContentTrigrams::candidates(
    std::span<const uint8_t> needle) const {
  if (needle.size() < minNeedleLength) return std::nullopt;
  std::vector<std::span<const uint8_t>> lists;
  bool absent = false;
  bool malformed = false;
  forEachKey(needle.data(), needle.size(), [&](uint32_t key) {
    if (absent || malformed) return;
    std::optional<std::span<const uint8_t>> list = postingsOf(key);
    if (!list) {
      malformed = true;
    } else if (list->empty()) {
      absent = true;
    } else {
      lists.push_back(*list);
    }
  });
  if (malformed) return std::nullopt;
  if (absent) return std::vector<uint32_t>();
  // Shortest list first (bytes track entries closely); a repeated key is read once.
  std::sort(lists.begin(), lists.end(), [](const auto& a, const auto& b) {
    return a.size() != b.size() ? a.size() < b.size() : a.data() < b.data();
  });
  lists.erase(std::unique(lists.begin(), lists.end(),
                          [](const auto& a, const auto& b) { return a.data() == b.data(); }),
              lists.end());

  std::vector<uint32_t> result;
  ListReader first(lists[0], documentCount_);
  for (uint32_t ordinal; first.next(ordinal);) result.push_back(ordinal);
  if (first.failed()) return std::nullopt;
  for (size_t l = 1; l < lists.size() && !result.empty(); ++l) {
    // Keeps the entries of `result` the list also holds; the list is read to its end so that
    // its bytes are checked in full whatever the intersection.
    ListReader reader(lists[l], documentCount_);
    size_t kept = 0, at = 0;
    for (uint32_t ordinal; reader.next(ordinal);) {
      while (at < result.size() && result[at] < ordinal) ++at;
      if (at < result.size() && result[at] == ordinal) result[kept++] = result[at++];
    }
    if (reader.failed()) return std::nullopt;
    result.resize(kept);
  }
  if (static_cast<double>(result.size()) >
      usefulnessThreshold * static_cast<double>(documentCount_)) {
    return std::nullopt;
  }
  return result;
}

}  // namespace tarvolin
