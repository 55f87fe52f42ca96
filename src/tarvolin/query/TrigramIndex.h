#pragma once
// For any needle of at least 3 bytes, which blocks of 1024 consecutive records can contain it.
// Every ASCII-folded 3-byte sequence of every name maps to the ascending list of blocks where it
// occurs. A superset: every listed block must still be verified by the matcher's scan.
//
// Built in two counting passes into three flat arrays; kept beside its index in a side file tied
// to the index by the index checksum (see docs/format/trigram-side-file.md). Immutable once
// built; any number of threads may query it.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace tarvolin {

class IndexStore;

class TrigramIndex {
 public:
  static constexpr uint32_t blockSize = 1024;
  static constexpr size_t minNeedleLength = 3;
  static constexpr double usefulnessThreshold = 0.55;

  /// Magic "GTVT" and version of the side file.
  static constexpr uint32_t fileMagic = 0x54565447;
  static constexpr uint32_t fileVersion = 1;

  /// An empty index: no keys, postingStart [0], no blocks.
  TrigramIndex();

  /// Builds over `count` names; `names(i)` gives record i's name bytes. `isCancelled` is polled
  /// every 65536 records of the first pass; a cancelled build returns an empty index (which
  /// answers "no record" for every needle, so the caller must discard it).
  static TrigramIndex build(const std::function<std::string_view(uint32_t)>& names, uint32_t count,
                            const std::function<bool()>& isCancelled);
  /// The same over every record of a store.
  static TrigramIndex build(const IndexStore& store, const std::function<bool()>& isCancelled);

  /// Ascending blocks that may hold `needle` (compared ASCII-folded), the empty list when no
  /// record can, or nothing when the needle is shorter than 3 bytes or the blocks exceed 55% of
  /// all blocks (scanning everything is then cheaper).
  std::optional<std::vector<uint32_t>> candidateBlocks(std::string_view needle) const;
  /// The blocks that may hold a name holding every one of `needles` (those of at least 3 bytes
  /// narrow it; the block of such a name holds all their sequences): the same answers as
  /// candidateBlocks, nothing when no needle has 3 bytes.
  std::optional<std::vector<uint32_t>> candidateBlocksForAll(
      std::span<const std::string_view> needles) const;

  /// Record IDs [b * 1024, min(b * 1024 + 1024, recordCount)) as a half-open pair.
  static std::pair<uint32_t, uint32_t> range(uint32_t block, uint32_t recordCount);

  /// Writes the side file atomically ("<url>.tmp", then rename). Throws std::system_error.
  void write(const std::filesystem::path& url, uint64_t storeChecksum) const;
  /// Loads a side file; nothing when it cannot be read, or its magic, version, store checksum or
  /// length (exactly 2K + 9 + P words) disagree. Never trusts, never throws.
  static std::optional<TrigramIndex> load(const std::filesystem::path& url, uint64_t storeChecksum);

  /// Bytes the three arrays occupy.
  size_t byteSize() const { return 4 * (keys_.size() + postingStart_.size() + postings_.size()); }
  int64_t blockCount() const { return blockCount_; }
  const std::vector<uint32_t>& keys() const { return keys_; }
  const std::vector<uint32_t>& postingStart() const { return postingStart_; }
  const std::vector<uint32_t>& postings() const { return postings_; }

  friend bool operator==(const TrigramIndex&, const TrigramIndex&) = default;

 private:
  /// Keys ascending and 24-bit, slices in order, non-empty, ascending and below blockCount: what
  /// every built index satisfies and a loaded file must, so lookups never leave the arrays.
  bool isWellFormed() const;
  /// The postings of one key, or nothing when the key never occurs.
  std::optional<std::pair<const uint32_t*, const uint32_t*>> blocks(uint32_t key) const;

  std::vector<uint32_t> keys_;
  std::vector<uint32_t> postingStart_;
  std::vector<uint32_t> postings_;
  int64_t blockCount_ = 0;
};

}  // namespace tarvolin
