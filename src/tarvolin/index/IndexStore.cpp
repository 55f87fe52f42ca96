#include "tarvolin/index/IndexStore.h"

#include "tarvolin/index/FastHash64.h"
#include "tarvolin/index/IndexError.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin {

namespace {

// True when every record's name lies inside the blob and every parent link is inside the table.
// Branch-free per record so it runs at memory speed.
bool linksStayInside(const FileRecord* records, uint32_t count, uint32_t blobLength) {
  uint64_t bad = 0;
  for (uint32_t i = 0; i < count; ++i) {
    const FileRecord& r = records[i];
    bad |= static_cast<uint64_t>(uint64_t{r.nameOffset} + r.nameLen > blobLength);
    bad |= static_cast<uint64_t>(r.parentID >= count && r.parentID != FileRecord::rootParentID);
  }
  return bad == 0;
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
  if (FastHash64::hash(body) != header_.checksum) throw IndexError::checksumMismatch();

  records_ = reinterpret_cast<const FileRecord*>(file_.data() + IndexHeader::byteSize);
  blob_ = body.data() + uint64_t{sizeof(FileRecord)} * header_.recordCount;
  if (!linksStayInside(records_, header_.recordCount, header_.nameBlobLength)) {
    throw IndexError::checksumMismatch();
  }
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
