#include "tarvolin/index/IndexStore.h"

#include <algorithm>

#include "tarvolin/index/FastHash64.h"
#include "tarvolin/index/detail/FastHash64Core.h"
#include "tarvolin/index/IndexError.h"
#include "tarvolin/index/detail/RecordChecks.h"
#include "tarvolin/platform/CpuFeatures.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin {

namespace {

// The checksum of the body, and whether every record stays inside the file.
struct BodyCheck {
  uint64_t checksum;
  bool linksInside;
  bool namesInRecordOrder;
};

// True when some record's name leaves the blob. Only needed when the names are not in record
// order: in order, the last name's end bounds them all.
bool anyNameOutside(const FileRecord* records, uint32_t count, uint32_t blobLength) {
  uint64_t bad = 0;
  for (uint32_t i = 0; i < count; ++i) {
    bad |= static_cast<uint64_t>(uint64_t{records[i].nameOffset} + records[i].nameLen > blobLength);
  }
  return bad != 0;
}

// The record checks ride along in the checksum pass, a group at a time while its bytes are in
// cache, so the records are read from memory once.
template <bool Avx2>
BodyCheck checkBodyWith(std::span<const uint8_t> body, uint32_t count, uint32_t blobLength) {
  FastHash64::detail::Lanes lanes;
  const auto* records = reinterpret_cast<const FileRecord*>(body.data());
  detail::RecordChecks checks;
  constexpr uint32_t kGroup = 64;  // 1536 bytes, 48 whole stripes
  uint32_t groups = count / kGroup;
  const uint8_t* p = body.data();
  for (uint32_t g = 0; g < groups; ++g) {
    lanes.stripes(p, kGroup * sizeof(FileRecord));
    const FileRecord* group = records + kGroup * size_t{g};
    if constexpr (Avx2) checks.noteAllAvx2(group, kGroup); else checks.noteAll(group, kGroup);
    p += kGroup * sizeof(FileRecord);
  }
  checks.noteAll(records + kGroup * size_t{groups}, count - kGroup * groups);
  size_t done = static_cast<size_t>(p - body.data());
  done += lanes.stripes(p, body.size() - done);
  uint64_t checksum = lanes.finish(body.size(), body.data() + done, body.size() - done);
  bool inOrder = !checks.unordered;
  bool namesInside =
      inOrder ? checks.previousEnd <= blobLength : !anyNameOutside(records, count, blobLength);
  return {checksum, checks.parentLimit <= count && namesInside, inOrder};
}

BodyCheck checkBody(std::span<const uint8_t> body, uint32_t count, uint32_t blobLength) {
  if (platform::hasAvx2()) return checkBodyWith<true>(body, count, blobLength);
  return checkBodyWith<false>(body, count, blobLength);
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
