#include "tarvolin/index/IndexStore.h"

#include <algorithm>
#include <utility>

#include "tarvolin/index/IndexError.h"
#include "tarvolin/index/detail/BodyCheck.h"
#include "tarvolin/platform/CpuFeatures.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin {

IndexStore::IndexStore(const std::filesystem::path& path) {
  try {
    // The checksum reads every page right away, so let the kernel fault them in at once.
    file_ = platform::MappedFile::open(path, /*populate=*/true);
  } catch (const std::system_error&) {
    throw IndexError::truncated();
  }
  validate();
}

IndexStore::IndexStore(platform::MappedFile image) : file_(std::move(image)) { validate(); }

void IndexStore::validate() {
  header_ = IndexHeader::decode(file_.bytes());  // a file shorter than a header is truncated

  uint64_t needed = IndexHeader::byteSize + uint64_t{sizeof(FileRecord)} * header_.recordCount +
                    header_.nameBlobLength;
  if (file_.size() < needed) throw IndexError::truncated();

  std::span<const uint8_t> body =
      file_.bytes().subspan(IndexHeader::byteSize, needed - IndexHeader::byteSize);
  detail::BodyCheck check = detail::checkBody(
      body, header_.recordCount, header_.nameBlobLength,
      platform::hasAvx2() ? detail::CheckKernel::avx2 : detail::CheckKernel::scalar);
  if (check.checksum != header_.checksum || !check.linksInside) {
    throw IndexError::checksumMismatch();
  }
  namesInRecordOrder_ = check.namesInRecordOrder;
  hasDeletedRecords_ = check.anyDeleted;
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
      case IndexError::Kind::badMagic:
        return RebuildReason{RebuildReason::Kind::badMagic};
      case IndexError::Kind::checksumMismatch:
        return RebuildReason{RebuildReason::Kind::corrupt};
      case IndexError::Kind::truncated:
        return RebuildReason{RebuildReason::Kind::truncated};
      case IndexError::Kind::tooManyVolumes:
        return RebuildReason{RebuildReason::Kind::tooManyVolumes};
    }
  } catch (...) {
  }
  return RebuildReason{RebuildReason::Kind::corrupt};
}

}  // namespace tarvolin
