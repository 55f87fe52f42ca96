#include "tarvolin/index/detail/BodyCheck.h"

#include <immintrin.h>

#include <algorithm>
#include <cstddef>

#include "tarvolin/index/FileRecord.h"
#include "tarvolin/index/detail/FastHash64Core.h"

namespace tarvolin::detail {

namespace {

using FastHash64::detail::Lanes;

// The largest parent link, whether the names run in record order and whether any record is
// deleted, noted record by record.
struct RecordChecks {
  uint32_t parentLimit = 0;  // the largest parentID + 1; the top marker wraps to 0
  bool unordered = false;    // some name starts before the previous one ends
  uint64_t previousEnd = 0;  // end of the last name noted
  uint8_t flagsSeen = 0;     // every record's flags or'ed together

  void noteAll(const FileRecord* records, size_t count) {
    for (size_t i = 0; i < count; ++i) {
      const FileRecord& r = records[i];
      parentLimit = std::max(parentLimit, r.parentID + 1);
      unordered |= r.nameOffset < previousEnd;
      previousEnd = uint64_t{r.nameOffset} + r.nameLen;
      flagsSeen |= r.flags.rawValue;
    }
  }
};

// The same, four records a step, its state held in vector registers between steps.
struct RecordChecksAvx2 {
  __m256i limit, late, carry, thirds;

  [[gnu::target("avx2"),
    gnu::always_inline]] inline explicit RecordChecksAvx2(const RecordChecks& from)
      : limit(_mm256_set1_epi32(static_cast<int>(from.parentLimit))),
        late(_mm256_set1_epi64x(from.unordered ? -1 : 0)),
        carry(_mm256_set1_epi64x(static_cast<int64_t>(from.previousEnd))),  // lane 0 is read
        thirds(_mm256_setzero_si256()) {}

  // Four records are 96 bytes, three 32-byte loads A, B, C of twelve 8-byte words. Record k's
  // first word (parentID, nameOffset) is word 3k and its third (mtime, nameLen, flags, ...) is
  // word 3k + 2. Blends gather each kind into one register with the words still in their load
  // lanes, and a lane permutation puts them in record order.
  [[gnu::target("avx2"), gnu::always_inline]] inline void noteFour(const FileRecord* records) {
    const __m256i one = _mm256_setr_epi32(1, 0, 1, 0, 1, 0, 1, 0);
    const __m256i lowWord = _mm256_set1_epi64x(0xFFFFFFFF);
    const __m256i lengthByte = _mm256_set1_epi64x(0xFF);
    const auto* bytes = reinterpret_cast<const uint8_t*>(records);
    __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes));
    __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes + 32));
    __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes + 64));
    // [A0, C1, B2, A3] -> [A0, A3, B2, C1]: first words of records 0..3.
    __m256i first = _mm256_blend_epi32(_mm256_blend_epi32(a, c, 0b00001100), b, 0b00110000);
    first = _mm256_permute4x64_epi64(first, _MM_SHUFFLE(1, 2, 3, 0));
    // [C0, B1, A2, C3] -> [A2, B1, C0, C3]: third words of records 0..3.
    __m256i third = _mm256_blend_epi32(_mm256_blend_epi32(a, b, 0b00001100), c, 0b11000011);
    third = _mm256_permute4x64_epi64(third, _MM_SHUFFLE(3, 0, 1, 2));

    limit = _mm256_max_epu32(limit, _mm256_and_si256(_mm256_add_epi32(first, one), lowWord));
    __m256i offsets = _mm256_srli_epi64(first, 32);
    __m256i lengths = _mm256_and_si256(_mm256_srli_epi64(third, 32), lengthByte);
    __m256i ends = _mm256_add_epi64(offsets, lengths);
    // The end before each record: the previous step's last end, then this step's first three.
    __m256i shifted = _mm256_permute4x64_epi64(ends, _MM_SHUFFLE(2, 1, 0, 3));
    __m256i before = _mm256_blend_epi32(shifted, carry, 0b00000011);
    late = _mm256_or_si256(late, _mm256_cmpgt_epi64(before, offsets));  // ends stay below 2^33
    carry = shifted;
    thirds = _mm256_or_si256(thirds, third);  // the flags are byte 5 of each
    static_assert(offsetof(FileRecord, flags) == 16 + 5);
  }

  [[gnu::target("avx2")]] void finish(RecordChecks& into) const {
    alignas(32) uint32_t limits[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(limits), limit);
    for (uint32_t value : limits) into.parentLimit = std::max(into.parentLimit, value);
    into.unordered = !_mm256_testz_si256(late, late);
    into.previousEnd = static_cast<uint64_t>(_mm256_extract_epi64(carry, 0));
    alignas(32) uint64_t words[4];
    _mm256_store_si256(reinterpret_cast<__m256i*>(words), thirds);
    for (uint64_t word : words) into.flagsSeen |= static_cast<uint8_t>(word >> 40);
  }
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
// checks run beside it on the other units and cost next to nothing (measured: opening 2 M
// records takes no longer than the checksum's own loop alone).
constexpr size_t kTurnRecords = 8;
constexpr size_t kTurnBytes = kTurnRecords * sizeof(FileRecord);
static_assert(kTurnBytes % 64 == 0);

[[gnu::always_inline]] inline void hashTurn(Lanes& lanes, const uint8_t* p) {
  for (size_t line = 0; line < kTurnBytes; line += 64) {
    __builtin_prefetch(p + line + Lanes::prefetchDistance);
  }
  for (size_t stripe = 0; stripe < kTurnBytes; stripe += 32) lanes.stripe(p + stripe);
}

// Both take the lanes by value and hand them back, so that they stay in registers: through a
// reference, every byte load of the stripe loop might alias them.
[[gnu::target("avx2")]] Lanes hashAndCheckAvx2(Lanes lanes, RecordChecks& checks,
                                               const FileRecord* records, size_t turns) {
  RecordChecksAvx2 vector(checks);
  for (size_t t = 0; t < turns; ++t, records += kTurnRecords) {
    hashTurn(lanes, reinterpret_cast<const uint8_t*>(records));
    vector.noteFour(records);
    vector.noteFour(records + 4);
  }
  vector.finish(checks);
  return lanes;
}

Lanes hashAndCheckScalar(Lanes lanes, RecordChecks& checks, const FileRecord* records,
                         size_t turns) {
  for (size_t t = 0; t < turns; ++t, records += kTurnRecords) {
    hashTurn(lanes, reinterpret_cast<const uint8_t*>(records));
    checks.noteAll(records, kTurnRecords);
  }
  return lanes;
}

}  // namespace

BodyCheck checkBody(std::span<const uint8_t> body, uint32_t count, uint32_t blobLength,
                    CheckKernel kernel) {
  RecordChecks checks;
  const auto* records = reinterpret_cast<const FileRecord*>(body.data());
  size_t turns = count / kTurnRecords;
  Lanes lanes = kernel == CheckKernel::avx2 ? hashAndCheckAvx2({}, checks, records, turns)
                                            : hashAndCheckScalar({}, checks, records, turns);
  checks.noteAll(records + kTurnRecords * turns, count - kTurnRecords * turns);
  size_t done = turns * kTurnBytes;
  done += lanes.stripes(body.data() + done, body.size() - done);
  uint64_t checksum = lanes.finish(body.size(), body.data() + done, body.size() - done);
  bool inOrder = !checks.unordered;
  bool namesInside =
      inOrder ? checks.previousEnd <= blobLength : !anyNameOutside(records, count, blobLength);
  bool anyDeleted = RecordFlags(checks.flagsSeen).contains(RecordFlags::deleted);
  return {checksum, checks.parentLimit <= count && namesInside, inOrder, anyDeleted};
}

}  // namespace tarvolin::detail
