#include "tarvolin/content/detail/ContentScan.h"

#include <immintrin.h>

#include <cstring>

#include "tarvolin/platform/CpuFeatures.h"

namespace tarvolin::detail {

namespace {

struct ScanInput {
  const uint8_t* blob;
  size_t blobLength;
  const uint8_t* needle;
  size_t length;
};

inline bool restEquals(const ScanInput& in, size_t position) {
  return std::memcmp(in.blob + position + 1, in.needle + 1, in.length - 1) == 0;
}

size_t findScalar(const ScanInput& in, size_t begin, size_t end) {
  const uint8_t first = in.needle[0];
  for (size_t position = begin; position + in.length <= end; ++position) {
    if (in.blob[position] == first && restEquals(in, position)) return position;
  }
  return notFound;
}

// Candidates are starts where the needle's first byte and its last byte (length - 1 further on)
// both match: far more selective than the first byte alone in text, where a few letters make up
// most of the bytes. A block is taken whole when its loads stay inside the blob; the blob's last
// few bytes go through the scalar loop.
template <size_t Width, typename Mask>
[[gnu::always_inline]] inline size_t findBlocks(const ScanInput& in, size_t begin, size_t end,
                                                Mask&& vectorMask) {
  const size_t last = in.length - 1;
  const size_t starts = end - begin - last;  // candidate starts: begin ... begin + starts - 1
  size_t position = begin;
  const size_t stop = begin + starts;
  while (position < stop) {
    if (position + Width + last > in.blobLength) {
      return findScalar(in, position, end);
    }
    uint32_t bits = vectorMask(in.blob + position);
    if (stop - position < Width) bits &= (uint32_t{1} << (stop - position)) - 1;
    while (bits != 0) {
      size_t candidate = position + static_cast<size_t>(__builtin_ctz(bits));
      if (restEquals(in, candidate)) return candidate;
      bits &= bits - 1;
    }
    position += Width;
  }
  return notFound;
}

size_t findSse2(const ScanInput& in, size_t begin, size_t end) {
  const size_t last = in.length - 1;
  const __m128i first = _mm_set1_epi8(static_cast<char>(in.needle[0]));
  const __m128i final = _mm_set1_epi8(static_cast<char>(in.needle[last]));
  return findBlocks<16>(in, begin, end, [&](const uint8_t* p) -> uint32_t {
    __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + last));
    __m128i hit = _mm_and_si128(_mm_cmpeq_epi8(a, first), _mm_cmpeq_epi8(b, final));
    return static_cast<uint32_t>(_mm_movemask_epi8(hit));
  });
}

struct Avx2Mask {
  __m256i first, final;
  size_t last;
  [[gnu::target("avx2")]] inline uint32_t operator()(const uint8_t* p) const {
    __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + last));
    __m256i hit = _mm256_and_si256(_mm256_cmpeq_epi8(a, first), _mm256_cmpeq_epi8(b, final));
    return static_cast<uint32_t>(_mm256_movemask_epi8(hit));
  }
};

// flatten pulls the loop and the mask into this AVX2 function, where the mask may be inlined.
[[gnu::target("avx2"), gnu::flatten]] size_t findAvx2(const ScanInput& in, size_t begin,
                                                      size_t end) {
  const size_t last = in.length - 1;
  Avx2Mask mask{_mm256_set1_epi8(static_cast<char>(in.needle[0])),
                _mm256_set1_epi8(static_cast<char>(in.needle[last])), last};
  return findBlocks<32>(in, begin, end, mask);
}

}  // namespace

ContentScanKernel preferredContentKernel() {
  return platform::hasAvx2() ? ContentScanKernel::avx2 : ContentScanKernel::sse2;
}

size_t findFirst(std::span<const uint8_t> blob, size_t begin, size_t end,
                 std::span<const uint8_t> needle, ContentScanKernel kernel) {
  if (needle.empty() || end < begin || end - begin < needle.size()) return notFound;
  ScanInput in{blob.data(), blob.size(), needle.data(), needle.size()};
  switch (kernel) {
    case ContentScanKernel::scalar:
      return findScalar(in, begin, end);
    case ContentScanKernel::sse2:
      return findSse2(in, begin, end);
    case ContentScanKernel::avx2:
      if (platform::hasAvx2()) return findAvx2(in, begin, end);
      return findSse2(in, begin, end);
  }
  return notFound;
}

size_t countLineFeeds(std::span<const uint8_t> bytes) {
  const uint8_t* p = bytes.data();
  const size_t n = bytes.size();
  const __m128i feed = _mm_set1_epi8('\n');
  size_t count = 0;
  size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i));
    count += static_cast<size_t>(
        __builtin_popcount(static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(chunk, feed)))));
  }
  for (; i < n; ++i) count += p[i] == '\n';
  return count;
}

}  // namespace tarvolin::detail
