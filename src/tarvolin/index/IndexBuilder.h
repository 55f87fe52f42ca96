#pragma once
// The growable, in-memory form of an index: the record table and the name blob, filled by the
// scanner, the file-list importer or from an existing store, then handed whole to IndexWriter.
// Record IDs are handed out in order of addition and never change; nothing is ever removed (a
// record that went away is marked deleted and keeps its place).
// A builder belongs to one thread at a time (the attribute filler's workers write records only
// under their own lock).

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/index/FileRecord.h"

namespace tarvolin {

class IndexStore;

class IndexBuilder {
 public:
  /// The longest name kept; longer names keep their first 255 bytes.
  static constexpr size_t maxNameBytes = 255;

  /// Reserves room for that many records and blob bytes; zero or negative reserves nothing.
  explicit IndexBuilder(int64_t reservingRecords = 0, int64_t reservingBlobBytes = 0);

  IndexBuilder(IndexBuilder&&) noexcept = default;
  IndexBuilder& operator=(IndexBuilder&&) noexcept = default;
  IndexBuilder(const IndexBuilder&) = delete;
  IndexBuilder& operator=(const IndexBuilder&) = delete;

  /// Appends one record named by the first 255 bytes of `name` and returns its ID. The parent is
  /// not validated: add a parent before its children, or pass FileRecord::rootParentID.
  /// REQUIRES: fewer than 2^32 records and a blob that stays below 2^32 bytes.
  uint32_t addEntry(std::string_view name, uint32_t parentID, RecordFlags flags,
                    uint8_t volumeIndex);
  uint32_t addEntry(std::span<const uint8_t> nameBytes, uint32_t parentID, RecordFlags flags,
                    uint8_t volumeIndex);

  /// Sets size and mtime and adds attrsFilled. REQUIRES: id < recordCount().
  void setAttributes(uint32_t id, uint64_t size, uint32_t mtime);

  /// Adds the `deleted` flag. REQUIRES: id < recordCount().
  void markDeleted(uint32_t id);

  /// Every record and the whole name blob of `store`, unchanged (deleted records included).
  static IndexBuilder copying(const IndexStore& store);
  /// The records of `store` that are not deleted and whose parent was kept, renumbered in ID
  /// order (a record's parent must come before it, as in every index the engine writes).
  static IndexBuilder compacting(const IndexStore& store);

  /// The name decoded as UTF-8, invalid sequences replaced by U+FFFD. REQUIRES: id < recordCount().
  std::string name(uint32_t id) const;
  /// The raw name bytes. REQUIRES: id < recordCount().
  std::string_view nameBytes(uint32_t id) const;

  /// Appends every record of `other` below `parent` (its top records get `parent` as parent; the
  /// others keep their links, rebased). Returns the new ID of each merged record, indexed by its
  /// old ID in `other` (new = old + the record count before the merge).
  std::vector<uint32_t> merge(const IndexBuilder& other, uint32_t parent);

  /// Copies the records of volume `volumeIndex` of `store`, in ID order, under `newVolumeIndex`.
  /// A record whose parent was not copied before it is dropped with its subtree. Sizes and times
  /// are kept for records with attrsFilled. Returns the new ID of the first record copied (the
  /// volume's top record), or nothing when no record was copied.
  std::optional<uint32_t> copyVolume(const IndexStore& store, uint8_t volumeIndex,
                                     uint8_t newVolumeIndex);

  const std::vector<FileRecord>& records() const { return records_; }
  const std::vector<uint8_t>& nameBlob() const { return nameBlob_; }
  uint32_t recordCount() const { return static_cast<uint32_t>(records_.size()); }

  /// Record by ID. REQUIRES: id < recordCount().
  const FileRecord& operator[](uint32_t id) const { return records_[id]; }

 private:
  uint32_t appendRecord(const uint8_t* name, size_t length, uint32_t parentID, RecordFlags flags,
                        uint8_t volumeIndex);

  std::vector<FileRecord> records_;
  std::vector<uint8_t> nameBlob_;
};

}  // namespace tarvolin
