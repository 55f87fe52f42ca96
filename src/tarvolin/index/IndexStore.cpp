#include "tarvolin/index/IndexStore.h"

#include "tarvolin/index/FastHash64.h"
#include "tarvolin/index/detail/FastHash64Core.h"
#include "tarvolin/index/IndexError.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin {

namespace {

// True when a record's name lies inside the blob and its parent link inside the table (or is
// the top marker). Branch-free so it costs nothing beside the checksum.
inline uint64_t outside(const FileRecord& r, uint32_t count, uint32_t blobLength) {
  return static_cast<uint64_t>(uint64_t{r.nameOffset} + r.nameLen > blobLength) |
         static_cast<uint64_t>(r.parentID >= count && r.parentID != FileRecord::rootParentID);
}

// The checksum of the body, and whether every record stays inside the file. Sixteen records are
// 384 bytes, twelve whole stripes: each group is checked while the checksum has it in cache, so
// the records are read from memory once.
struct BodyCheck {
  uint64_t checksum;
  bool linksInside;
  bool namesInRecordOrder;
};

// Names lie in the blob in record order when no name starts before the previous one ends.
inline uint64_t outOfOrder(const FileRecord& r, uint64_t& previousEnd) {
  uint64_t before = static_cast<uint64_t>(r.nameOffset < previousEnd);
  previousEnd = uint64_t{r.nameOffset} + r.nameLen;
  return before;
}

BodyCheck checkBody(std::span<const uint8_t> body, uint32_t count, uint32_t blobLength) {
  FastHash64::detail::Lanes lanes;
  const auto* records = reinterpret_cast<const FileRecord*>(body.data());
  uint64_t bad = 0;
  uint64_t unordered = 0;
  uint64_t previousEnd = 0;
  constexpr uint32_t kGroup = 16;
  uint32_t groups = count / kGroup;
  const uint8_t* p = body.data();
  for (uint32_t g = 0; g < groups; ++g) {
    const FileRecord* r = records + kGroup * size_t{g};
    for (uint32_t i = 0; i < kGroup; ++i) {
      bad |= outside(r[i], count, blobLength);
      unordered |= outOfOrder(r[i], previousEnd);
    }
    lanes.stripes(p, kGroup * sizeof(FileRecord));
    p += kGroup * sizeof(FileRecord);
  }
  for (uint32_t i = groups * kGroup; i < count; ++i) {
    bad |= outside(records[i], count, blobLength);
    unordered |= outOfOrder(records[i], previousEnd);
  }
  size_t done = static_cast<size_t>(p - body.data());
  done += lanes.stripes(p, body.size() - done);
  return {lanes.finish(body.size(), body.data() + done, body.size() - done), bad == 0,
          unordered == 0};
}

}  // namespace

IndexStore::IndexStore(const std::filesystem::path& path) {
  try {
    // The checksum reads every page right away, so let the kernel fault them in at once.
    file_ = platform::MappedFile::open(path, /*populate=*/true);
  } catch (const platform::MappedFile::Error&) {
    throw IndexError::truncated();
  }
  if (file_.size() < IndexHeader::byteSize) throw IndexError::truncated();
  header_ = IndexHeader::decode(file_.bytes());

  uint64_t needed = IndexHeader::byteSize + uint64_t{sizeof(FileRecord)} * header_.recordCount +
                    header_.nameBlobLength;
  if (file_.size() < needed) throw IndexError::truncated();

  std::span<const uint8_t> body = file_.bytes().subspan(IndexHeader::byteSize,
                                                        needed - IndexHeader::byteSize);
  BodyCheck check = checkBody(body, header_.recordCount, header_.nameBlobLength);
  if (check.checksum != header_.checksum || !check.linksInside) {
    throw IndexError::checksumMismatch();
  }
  namesInRecordOrder_ = check.namesInRecordOrder;
  records_ = reinterpret_cast<const FileRecord*>(body.data());
  blob_ = body.data() + uint64_t{sizeof(FileRecord)} * header_.recordCount;
}

std::string IndexStore::name(uint32_t id) const { return platform::decodeUtf8Lossy(nameBytes(id)); }

IndexLoadOutcome loadIndex(const std::filesystem::path& path) {
  std::error_code error;
  bool exists = std::filesystem::exists(path, error);
  if (!exists && !error) return RebuildReason{RebuildReason::Kind::missing};
  try {
    return std::shared_ptr<const IndexStore>(std::make_shared<IndexStore>(path));
  } catch (const IndexError& failure) {
    switch (failure.kind()) {
      case IndexError::Kind::versionMismatch:
        return RebuildReason{RebuildReason::Kind::versionMismatch, failure.found(),
                             failure.expected()};
      case IndexError::Kind::badMagic: return RebuildReason{RebuildReason::Kind::badMagic};
      case IndexError::Kind::checksumMismatch: return RebuildReason{RebuildReason::Kind::corrupt};
      case IndexError::Kind::truncated: return RebuildReason{RebuildReason::Kind::truncated};
      case IndexError::Kind::tooManyVolumes:
        return RebuildReason{RebuildReason::Kind::tooManyVolumes};
    }
  } catch (...) {
  }
  return RebuildReason{RebuildReason::Kind::corrupt};
}

}  // namespace tarvolin
