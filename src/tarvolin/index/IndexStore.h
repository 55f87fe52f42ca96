#pragma once
// The loaded, read-only view of one index file. The file is mapped and validated once when the
// store is opened; afterwards nothing changes, so any number of threads may read it without
// locks. Share it as std::shared_ptr<const IndexStore>; the mapping lives as long as the last
// holder, so a newer file written meanwhile does not disturb readers of this one.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "tarvolin/index/FileRecord.h"
#include "tarvolin/index/IndexHeader.h"
#include "tarvolin/platform/MappedFile.h"

namespace tarvolin {

class IndexStore {
 public:
  /// Maps `path` and validates it in the format's order: truncated (cannot open, stat or map;
  /// under 4096 bytes), then the header's own checks, then truncated (shorter than the header
  /// says), then checksumMismatch. Beyond the checksum, every record's name range and parent link
  /// are checked to lie inside the file (checksumMismatch otherwise), so a hand-made file with a
  /// forged checksum cannot make a reader leave the mapping. Throws IndexError.
  explicit IndexStore(const std::filesystem::path& path);

  /// The same validation over a file image already in memory (see IndexWriter::image).
  explicit IndexStore(platform::MappedFile image);

  IndexStore(const IndexStore&) = delete;
  IndexStore& operator=(const IndexStore&) = delete;

  const IndexHeader& header() const { return header_; }
  uint32_t count() const { return header_.recordCount; }

  /// REQUIRES: id < count().
  const FileRecord& operator[](uint32_t id) const { return records_[id]; }
  std::span<const FileRecord> records() const { return {records_, header_.recordCount}; }

  /// The raw name bytes. REQUIRES: id < count().
  std::string_view nameBytes(uint32_t id) const {
    const FileRecord& record = records_[id];
    return {reinterpret_cast<const char*>(blob_) + record.nameOffset, record.nameLen};
  }
  /// The name decoded as UTF-8, invalid sequences replaced by U+FFFD. REQUIRES: id < count().
  std::string name(uint32_t id) const;
  /// The whole name blob.
  std::string_view nameBlob() const {
    return {reinterpret_cast<const char*>(blob_), header_.nameBlobLength};
  }
  /// True when every name starts at or after the end of the previous record's name, as in every
  /// index the engine writes: hits of one pass over the blob then map back to records in order.
  bool namesInRecordOrder() const { return namesInRecordOrder_; }
  /// True when some record is marked deleted; a pass over every record that only needs the live
  /// ones may skip reading their flags when none is.
  bool hasDeletedRecords() const { return hasDeletedRecords_; }
  /// The whole file as mapped (header, records and names).
  std::span<const uint8_t> fileBytes() const { return file_.bytes(); }
  /// Size of the file when it was opened.
  uint64_t mappedLength() const { return file_.size(); }

 private:
  void validate();

  platform::MappedFile file_;
  IndexHeader header_;
  const FileRecord* records_ = nullptr;
  const uint8_t* blob_ = nullptr;
  bool namesInRecordOrder_ = false;
  bool hasDeletedRecords_ = true;
};

/// Why an index must be rebuilt before it can be used.
struct RebuildReason {
  enum class Kind { versionMismatch, missing, corrupt, truncated, badMagic, tooManyVolumes };
  Kind kind;
  uint32_t found = 0;     // versionMismatch only
  uint32_t expected = 0;  // versionMismatch only

  friend bool operator==(const RebuildReason&, const RebuildReason&) = default;
};

/// Either the loaded store or the reason it needs a rebuild.
using IndexLoadOutcome = std::variant<std::shared_ptr<const IndexStore>, RebuildReason>;

/// Opens the index at `path`; never throws. No file at the path is `missing`; a file that exists
/// but cannot be opened or read is `truncated`; any unexpected error is `corrupt`.
IndexLoadOutcome loadIndex(const std::filesystem::path& path);

}  // namespace tarvolin
