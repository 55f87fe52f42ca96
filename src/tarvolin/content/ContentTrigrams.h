#pragma once
// Which documents of a content index can hold a needle of at least 3 bytes. Every 3-byte
// sequence of each document's (lower-cased) range maps to the ascending list of document
// ordinals (table positions) holding it; a needle's candidates are the intersection of its
// sequences' lists. A superset: every candidate must still be scanned, so a search through it
// gives exactly the hits of the full scan while touching only the candidates' bytes.
//
// Kept in a side file beside "content.bin" ("content.tri", docs/format/content.tri.md), tied to
// that file by its size and a hash of its length word and table: a side file of any other
// content.bin is never used. Lists are delta-coded varints, read in place from the mapping.
//
// Immutable once opened; any number of threads may query it. The file is untrusted: every
// offset, key and varint is bounds-checked, and a list that does not decode cleanly makes the
// query answer "no filter" (the caller then scans everything) rather than a wrong set.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "tarvolin/content/ContentIndex.h"

namespace tarvolin {

namespace platform {
class MappedFile;
}

class ContentTrigrams {
 public:
  /// What ties a side file to one content.bin.
  struct Identity {
    /// Size of the whole content.bin in bytes.
    uint64_t contentBytes = 0;
    /// FastHash64 of content.bin's first 4 + N bytes (the length word and the JSON table).
    uint64_t tableHash = 0;
    /// Number of documents in its table.
    uint32_t documentCount = 0;

    friend bool operator==(const Identity&, const Identity&) = default;
  };

  static constexpr uint32_t fileMagic = 0x54435654;  // "TVCT"
  static constexpr uint32_t fileVersion = 1;
  static constexpr size_t headerBytes = 40;
  static constexpr size_t minNeedleLength = 3;
  /// Candidates beyond this share of the documents are not worth a filtered search.
  static constexpr double usefulnessThreshold = 0.75;

  /// The identity of a content.bin whose first 4 + N bytes are `lengthAndTable`.
  static Identity identityOf(uint64_t contentBytes, std::span<const uint8_t> lengthAndTable,
                             uint32_t documentCount);

  /// The side file of `documents` over `blob` (ranges clamped as a search clamps them), as bytes.
  /// Large blobs are summarised on every processor. REQUIRES: documents.size() < 2^32.
  static std::vector<uint8_t> encode(std::span<const ContentIndex::Document> documents,
                                     std::span<const uint8_t> blob, const Identity& identity);

  /// The side file at `path` when it belongs to `identity`: nothing when it is missing,
  /// unreadable, of another content.bin, or its header and sizes disagree. Never throws.
  static std::optional<ContentTrigrams> open(const std::filesystem::path& path,
                                             const Identity& identity);
  /// The same over bytes the caller keeps alive as long as the result.
  static std::optional<ContentTrigrams> view(std::span<const uint8_t> file,
                                             const Identity& identity);

  /// Ascending ordinals of the documents that may hold `needle` (already lower-cased), the empty
  /// list when none can; nothing when the needle is shorter than 3 bytes, the candidates exceed
  /// usefulnessThreshold of the documents, or a list it needed is malformed.
  std::optional<std::vector<uint32_t>> candidates(std::span<const uint8_t> needle) const;

  uint32_t documentCount() const { return documentCount_; }
  uint32_t keyCount() const { return keyCount_; }

 private:
  ContentTrigrams() = default;
  /// The posting bytes of `key`, or an empty span when the key never occurs; nothing when its
  /// slice is out of order or out of bounds.
  std::optional<std::span<const uint8_t>> postingsOf(uint32_t key) const;

  std::shared_ptr<const platform::MappedFile> mapped_;  // keeps `file_` alive when opened
  std::span<const uint8_t> file_;
  uint32_t documentCount_ = 0;
  uint32_t keyCount_ = 0;
  uint64_t postingBytes_ = 0;
};

}  // namespace tarvolin
