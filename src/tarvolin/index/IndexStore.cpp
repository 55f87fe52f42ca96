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

// The checksum's stripe loop with the record checks interleaved, eight records (192 bytes, six
// stripes, three cache lines) a turn. The checksum is bound by its chain of multiplies; the
// checks run beside it on the other units, on bytes it has just loaded, and cost next to
// nothing (measured: the open takes as long as the checksum alone).
constexpr size_t kTurnRecords = 8;
constexpr size_t kTurnBytes = kTurnRecords * sizeof(FileRecord);
static_assert(kTurnBytes % 64 == 0);

[[gnu::always_inline]] inline void hashTurn(FastHash64::detail::Lanes& lanes, const uint8_t* p) {
  for (size_t line = 0; line < kTurnBytes; line += 64) {
    __builtin_prefetch(p + line + FastHash64::detail::Lanes::prefetchDistance);
  }
  for (size_t stripe = 0; stripe < kTurnBytes; stripe += 32) lanes.stripe(p + stripe);
}

// Both take the lanes by value and hand them back, so that they stay in registers: through a
// reference, every byte load of the stripe loop might alias them.
[[gnu::target("avx2")]] FastHash64::detail::Lanes hashAndCheckAvx2(
    FastHash64::detail::Lanes lanes, detail::RecordChecks& checks, const FileRecord* records,
    size_t turns) {
  detail::RecordChecksAvx2 vector(checks);
  for (size_t t = 0; t < turns; ++t, records += kTurnRecords) {
    hashTurn(lanes, reinterpret_cast<const uint8_t*>(records));
    vector.noteFour(records);
    vector.noteFour(records + 4);
  }
  vector.finish(checks);
  return lanes;
}

FastHash64::detail::Lanes hashAndCheckScalar(FastHash64::detail::Lanes lanes,
                                             detail::RecordChecks& checks,
                                             const FileRecord* records, size_t turns) {
  for (size_t t = 0; t < turns; ++t, records += kTurnRecords) {
    hashTurn(lanes, reinterpret_cast<const uint8_t*>(records));
    checks.noteAll(records, kTurnRecords);
  }
  return lanes;
}

// The checksum of the body, and whether every record stays inside the file.
BodyCheck checkBody(std::span<const uint8_t> body, uint32_t count, uint32_t blobLength) {
  detail::RecordChecks checks;
  const auto* records = reinterpret_cast<const FileRecord*>(body.data());
  size_t turns = count / kTurnRecords;
  FastHash64::detail::Lanes lanes = platform::hasAvx2()
                                        ? hashAndCheckAvx2({}, checks, records, turns)
                                        : hashAndCheckScalar({}, checks, records, turns);
  checks.noteAll(records + kTurnRecords * turns, count - kTurnRecords * turns);
  size_t done = turns * kTurnBytes;
  done += lanes.stripes(body.data() + done, body.size() - done);
  uint64_t checksum = lanes.finish(body.size(), body.data() + done, body.size() - done);
  bool inOrder = !checks.unordered;
  bool namesInside =
      inOrder ? checks.previousEnd <= blobLength : !anyNameOutside(records, count, blobLength);
  return {checksum, checks.parentLimit <= count && namesInside, inOrder};
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
