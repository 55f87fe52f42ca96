#include "tarvolin/index/IndexBuilder.h"

#include <algorithm>

#include "tarvolin/index/IndexStore.h"
#include "tarvolin/platform/Memory.h"
#include "tarvolin/platform/Precondition.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin {

namespace {
constexpr uint64_t kMaxRecords = 0xFFFFFFFFull;  // IDs 0 ... 2^32 - 2; 0xFFFFFFFF is "no parent"
constexpr uint64_t kMaxBlobBytes = 0xFFFFFFFFull;
}  // namespace

IndexBuilder::IndexBuilder(int64_t reservingRecords, int64_t reservingBlobBytes) {
  if (reservingRecords > 0) records_.reserve(static_cast<size_t>(reservingRecords));
  if (reservingBlobBytes > 0) nameBlob_.reserve(static_cast<size_t>(reservingBlobBytes));
}

uint32_t IndexBuilder::appendRecord(const uint8_t* name, size_t length, uint32_t parentID,
                                    RecordFlags flags, uint8_t volumeIndex) {
  size_t n = std::min(length, maxNameBytes);
  TARVOLIN_PRECONDITION(records_.size() < kMaxRecords);
  TARVOLIN_PRECONDITION(nameBlob_.size() + n <= kMaxBlobBytes);
  auto offset = static_cast<uint32_t>(nameBlob_.size());
  auto id = static_cast<uint32_t>(records_.size());
  nameBlob_.insert(nameBlob_.end(), name, name + n);
  records_.emplace_back(parentID, offset, static_cast<uint8_t>(n), flags, volumeIndex, 0, 0);
  return id;
}

uint32_t IndexBuilder::addEntry(std::string_view name, uint32_t parentID, RecordFlags flags,
                                uint8_t volumeIndex) {
  return appendRecord(reinterpret_cast<const uint8_t*>(name.data()), name.size(), parentID, flags,
                      volumeIndex);
}

uint32_t IndexBuilder::addEntry(std::span<const uint8_t> nameBytes, uint32_t parentID,
                                RecordFlags flags, uint8_t volumeIndex) {
  return appendRecord(nameBytes.data(), nameBytes.size(), parentID, flags, volumeIndex);
}

void IndexBuilder::setAttributes(uint32_t id, uint64_t size, uint32_t mtime) {
  TARVOLIN_PRECONDITION(id < records_.size());
  FileRecord& record = records_[id];
  record.size = size;
  record.mtime = mtime;
  record.flags.insert(RecordFlags::attrsFilled);
}

void IndexBuilder::markDeleted(uint32_t id) {
  TARVOLIN_PRECONDITION(id < records_.size());
  records_[id].flags.insert(RecordFlags::deleted);
}

IndexBuilder IndexBuilder::copying(const IndexStore& store) {
  IndexBuilder builder;
  std::span<const FileRecord> records = store.records();
  std::string_view blob = store.nameBlob();
  // Room for the entries a live update adds: without it the first one added reallocates and
  // copies the whole table again.
  builder.records_.reserve(records.size() + records.size() / 128 + 1024);
  builder.nameBlob_.reserve(blob.size() + blob.size() / 128 + 16384);
  platform::adviseFillingSoon(builder.records_.data(),
                              builder.records_.capacity() * sizeof(FileRecord));
  platform::adviseFillingSoon(builder.nameBlob_.data(), builder.nameBlob_.capacity());
  builder.records_.assign(records.begin(), records.end());
  builder.nameBlob_.assign(blob.begin(), blob.end());
  return builder;
}

IndexBuilder IndexBuilder::compacting(const IndexStore& store) {
  constexpr uint32_t kDropped = 0xFFFFFFFF;
  uint32_t count = store.count();
  IndexBuilder builder(count, static_cast<int64_t>(store.nameBlob().size()));
  std::vector<uint32_t> newID(count, kDropped);
  for (uint32_t id = 0; id < count; ++id) {
    const FileRecord& record = store[id];
    if (record.flags.contains(RecordFlags::deleted)) continue;
    uint32_t parent = FileRecord::rootParentID;
    if (record.parentID != FileRecord::rootParentID) {
      if (record.parentID >= id || newID[record.parentID] == kDropped) continue;
      parent = newID[record.parentID];
    }
    uint32_t kept = builder.addEntry(store.nameBytes(id), parent, record.flags, record.volumeIndex);
    builder.records_[kept].size = record.size;
    builder.records_[kept].mtime = record.mtime;
    newID[id] = kept;
  }
  return builder;
}

std::string_view IndexBuilder::nameBytes(uint32_t id) const {
  TARVOLIN_PRECONDITION(id < records_.size());
  const FileRecord& record = records_[id];
  return {reinterpret_cast<const char*>(nameBlob_.data()) + record.nameOffset, record.nameLen};
}

std::string IndexBuilder::name(uint32_t id) const {
  return platform::decodeUtf8Lossy(nameBytes(id));
}

std::vector<uint32_t> IndexBuilder::merge(const IndexBuilder& other, uint32_t parent) {
  uint64_t base = records_.size();
  uint64_t blobBase = nameBlob_.size();
  TARVOLIN_PRECONDITION(base + other.records_.size() <= kMaxRecords);
  TARVOLIN_PRECONDITION(blobBase + other.nameBlob_.size() <= kMaxBlobBytes);
  auto recordBase = static_cast<uint32_t>(base);
  auto offsetBase = static_cast<uint32_t>(blobBase);

  nameBlob_.insert(nameBlob_.end(), other.nameBlob_.begin(), other.nameBlob_.end());
  std::vector<uint32_t> newIDs;
  newIDs.reserve(other.records_.size());
  records_.reserve(records_.size() + other.records_.size());
  uint32_t oldID = 0;
  for (const FileRecord& record : other.records_) {
    FileRecord copy = record;
    copy.nameOffset += offsetBase;
    copy.parentID =
        record.parentID == FileRecord::rootParentID ? parent : record.parentID + recordBase;
    records_.push_back(copy);
    newIDs.push_back(oldID++ + recordBase);
  }
  return newIDs;
}

std::optional<uint32_t> IndexBuilder::copyVolume(const IndexStore& store, uint8_t volumeIndex,
                                                 uint8_t newVolumeIndex) {
  // Old IDs are dense, so the old-to-new map is a flat table; 0xFFFFFFFF marks "not copied".
  constexpr uint32_t kUnmapped = 0xFFFFFFFF;
  std::vector<uint32_t> newID;
  std::optional<uint32_t> first;
  uint32_t count = store.count();
  for (uint32_t id = 0; id < count; ++id) {
    const FileRecord& record = store[id];
    if (record.volumeIndex != volumeIndex) continue;
    uint32_t parent = FileRecord::rootParentID;
    if (record.parentID != FileRecord::rootParentID) {
      if (record.parentID >= newID.size() || newID[record.parentID] == kUnmapped) continue;
      parent = newID[record.parentID];
    }
    std::string_view name = store.nameBytes(id);
    uint32_t copied = addEntry(name, parent, record.flags, newVolumeIndex);
    if (record.flags.contains(RecordFlags::attrsFilled)) {
      setAttributes(copied, record.size, record.mtime);
    }
    if (newID.empty()) newID.assign(count, kUnmapped);
    newID[id] = copied;
    if (!first) first = copied;
  }
  return first;
}

}  // namespace tarvolin
