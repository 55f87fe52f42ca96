#include "tarvolin/index/detail/RecordChecks.h"

#include <immintrin.h>

namespace tarvolin::detail {

// Four records are 96 bytes, three 32-byte loads A, B, C of twelve 8-byte words. Record k's
// first word (parentID, nameOffset) is word 3k and its third (mtime, nameLen, flags, ...) is word
// 3k + 2. Blends gather each kind into one register with the words still in their load lanes,
// and a lane permutation puts them in record order.
[[gnu::target("avx2")]] void RecordChecks::noteAllAvx2(const FileRecord* records, size_t count) {
  const __m256i one = _mm256_setr_epi32(1, 0, 1, 0, 1, 0, 1, 0);
  const __m256i lowWord = _mm256_set1_epi64x(0xFFFFFFFF);
  const __m256i lengthByte = _mm256_set1_epi64x(0xFF);
  __m256i limit = _mm256_setzero_si256();
  __m256i late = _mm256_setzero_si256();
  __m256i carry = _mm256_set1_epi64x(static_cast<int64_t>(previousEnd));  // lane 0 is read
  const auto* bytes = reinterpret_cast<const uint8_t*>(records);
  for (size_t i = 0; i < count; i += 4, bytes += 96) {
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
    __m256i ends = _mm256_add_epi64(offsets, _mm256_and_si256(_mm256_srli_epi64(third, 32), lengthByte));
    // The end before each record: the previous step's last end, then this step's first three.
    __m256i shifted = _mm256_permute4x64_epi64(ends, _MM_SHUFFLE(2, 1, 0, 3));
    __m256i before = _mm256_blend_epi32(shifted, carry, 0b00000011);
    late = _mm256_or_si256(late, _mm256_cmpgt_epi64(before, offsets));  // ends stay below 2^33
    carry = shifted;
  }
  alignas(32) uint32_t limits[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(limits), limit);
  for (uint32_t value : limits) parentLimit = std::max(parentLimit, value);
  unordered |= !_mm256_testz_si256(late, late);
  previousEnd = static_cast<uint64_t>(_mm256_extract_epi64(carry, 0));
}

}  // namespace tarvolin::detail
