#pragma once
// The record checks the store makes while it computes the checksum: every parent link inside
// the record table (or the top marker), and whether each name starts at or after the end of the
// one before, which, when it always holds, also keeps every name inside the blob. They run
// interleaved with the checksum's stripe loop on bytes it has just read, so they must cost
// little beside it: a scalar form, and an AVX2 form that checks four records per step on the
// vector units while the checksum keeps the multipliers busy.

#include <immintrin.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "tarvolin/index/FileRecord.h"

namespace tarvolin::detail {

struct RecordChecks {
  uint32_t parentLimit = 0;  // the largest parentID + 1; the top marker wraps to 0
  bool unordered = false;    // some name starts before the previous one ends
  uint64_t previousEnd = 0;  // end of the last name checked

  void note(const FileRecord& r) {
    parentLimit = std::max(parentLimit, r.parentID + 1);
    unordered |= r.nameOffset < previousEnd;
    previousEnd = uint64_t{r.nameOffset} + r.nameLen;
  }

  void noteAll(const FileRecord* records, size_t count) {
    for (size_t i = 0; i < count; ++i) note(records[i]);
  }

  /// Same as noteAll; `count` a multiple of 4. Needs AVX2.
  void noteAllAvx2(const FileRecord* records, size_t count);
};

/// The AVX2 form of RecordChecks, its state held in vector registers between steps. Only call
/// it from code compiled for AVX2.
struct RecordChecksAvx2 {
  __m256i limit, late, carry;

  [[gnu::target("avx2"), gnu::always_inline]] inline explicit RecordChecksAvx2(
      const RecordChecks& from)
      : limit(_mm256_set1_epi32(static_cast<int>(from.parentLimit))),
        late(_mm256_set1_epi64x(from.unordered ? -1 : 0)),
        carry(_mm256_set1_epi64x(static_cast<int64_t>(from.previousEnd))) {}  // lane 0 is read

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
  }

  /// Folds the vector state back into `into`.
  [[gnu::target("avx2")]] void finish(RecordChecks& into) const;
};

}  // namespace tarvolin::detail
