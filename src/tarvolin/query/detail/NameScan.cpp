#include "tarvolin/query/detail/NameScan.h"

#include <immintrin.h>

#include <algorithm>
#include <cstring>

#include "tarvolin/platform/CpuFeatures.h"
#include "tarvolin/query/detail/MatchSink.h"

namespace tarvolin::detail {

namespace {

inline uint8_t upperForm(uint8_t c) {
  return c >= 'a' && c <= 'z' ? static_cast<uint8_t>(c - 32) : c;
}

struct ScanInput {
  const FileRecord* records;
  const uint8_t* blob;
  size_t blobLength;
  const uint8_t* needle;
  size_t length;
  RecordFlags skipped;           // records with any of these flags never match
  const RecordVerdict* verdict;  // decides the records that hold the needle, when given
};

ScanInput inputFor(const IndexStore& store, std::string_view needle) {
  return {store.records().data(),
          reinterpret_cast<const uint8_t*>(store.nameBlob().data()),
          store.nameBlob().size(),
          reinterpret_cast<const uint8_t*>(needle.data()),
          needle.size(),
          RecordFlags::deleted,
          nullptr};
}

inline void emit(MatchSink& out, const ScanInput& in, uint32_t id, size_t position) {
  if (in.verdict != nullptr) {
    if (std::optional<Match> kept = (*in.verdict)(id)) out.push(*kept);
    return;
  }
  const FileRecord& record = in.records[id];
  std::string_view name(reinterpret_cast<const char*>(in.blob) + record.nameOffset, record.nameLen);
  out.push(Match{id, qualityAt(name, position, in.length), static_cast<int32_t>(position)});
}

void scanScalar(const ScanInput& in, uint32_t begin, uint32_t end, MatchSink& out) {
  for (uint32_t id = begin; id < end; ++id) {
    const FileRecord& record = in.records[id];
    if (!(record.flags & in.skipped).isEmpty() || record.nameLen < in.length) continue;
    std::string_view name(reinterpret_cast<const char*>(in.blob) + record.nameOffset,
                          record.nameLen);
    int position = firstOccurrence(name, {reinterpret_cast<const char*>(in.needle), in.length});
    if (position >= 0) emit(out, in, id, static_cast<size_t>(position));
  }
}

// Per record: the first needle byte is looked for 16 bytes at a time. A load may run past the
// name into the following names (never past the blob); positions past the last possible start
// are masked off.
void scanSse2(const ScanInput& in, uint32_t begin, uint32_t end, MatchSink& out) {
  const __m128i lower = _mm_set1_epi8(static_cast<char>(in.needle[0]));
  const __m128i upper = _mm_set1_epi8(static_cast<char>(upperForm(in.needle[0])));
  const uint8_t* blobEnd = in.blob + in.blobLength;
  for (uint32_t id = begin; id < end; ++id) {
    const FileRecord& record = in.records[id];
    if (!(record.flags & in.skipped).isEmpty() || record.nameLen < in.length) continue;
    const uint8_t* name = in.blob + record.nameOffset;
    size_t starts = record.nameLen - in.length + 1;
    for (size_t i = 0; i < starts; i += 16) {
      uint32_t bits;
      if (name + i + 16 <= blobEnd) {
        __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(name + i));
        bits = static_cast<uint32_t>(_mm_movemask_epi8(
            _mm_or_si128(_mm_cmpeq_epi8(chunk, lower), _mm_cmpeq_epi8(chunk, upper))));
      } else {
        bits = 0;
        for (size_t k = 0; k < 16 && i + k < starts; ++k) {
          if (foldAscii(name[i + k]) == in.needle[0]) bits |= 1u << k;
        }
      }
      if (starts - i < 16) bits &= (1u << (starts - i)) - 1;
      bool found = false;
      while (bits != 0) {
        size_t position = i + static_cast<size_t>(__builtin_ctz(bits));
        bits &= bits - 1;
        if (equalFolded(name + position + 1, in.needle + 1, in.length - 1)) {
          emit(out, in, id, position);
          found = true;
          break;
        }
      }
      if (found) break;
    }
  }
}

// The blob pass. `cursor` is the first record whose name may still hold a hit; names lie in
// record order, so the end of each name never decreases and a hit's record is found by
// galloping forward from the cursor.
struct BlobWalker {
  const ScanInput& in;
  uint32_t cursor;
  uint32_t end;
  MatchSink& out;

  uint64_t endOf(uint32_t id) const {
    return uint64_t{in.records[id].nameOffset} + in.records[id].nameLen;
  }

  // First record at or after the cursor whose name ends after `position`. A hit a few records
  // on (common needles) is reached by stepping through the records in order, which the
  // processor streams; a far one (rare needles) by galloping, then bisecting. Sixteen steps:
  // rangeScan/blobAvx2_common in bench/MatcherBench.cpp takes 13.3 ms CPU, 14.5 ms with 2 and
  // 14.7 ms with 128; the rare needle's scan is the same within noise.
  [[gnu::always_inline]] inline uint32_t recordAt(uint64_t position) const {
    if (cursor >= end) return end;
    if (endOf(cursor) > position) return cursor;
    constexpr uint32_t kSteps = 16;
    uint32_t stepEnd = end - cursor > kSteps ? cursor + kSteps : end;
    for (uint32_t id = cursor + 1; id < stepEnd; ++id) {
      if (endOf(id) > position) return id;
    }
    uint32_t low = stepEnd - 1, step = 1;
    while (low + step < end && endOf(low + step) <= position) {
      low += step;
      step *= 2;
    }
    uint32_t high = std::min(low + step, end);  // endOf(high) > position, or high == end
    while (high - low > 1) {
      uint32_t middle = low + (high - low) / 2;
      if (endOf(middle) <= position)
        low = middle;
      else
        high = middle;
    }
    return high;
  }

  // Tries the candidate start `position`, which lies before `stop`. Returns where scanning goes
  // on: after the record's name when it matched, else nothing (0). The bytes are compared first:
  // they are in cache, while finding the record reads the record table, and most candidates
  // fail on the bytes.
  [[gnu::always_inline]] inline uint64_t tryCandidate(uint64_t position, uint64_t stop) {
    if (position + in.length > stop) return 0;
    if (!equalFolded(in.blob + position + 1, in.needle + 1, in.length - 1)) return 0;
    uint32_t id = recordAt(position);
    if (id >= end) return ~uint64_t{0};
    cursor = id;
    const FileRecord& record = in.records[id];
    if (position < record.nameOffset) return 0;  // in a gap between names
    if (position + in.length > endOf(id) || !(record.flags & in.skipped).isEmpty()) return 0;
    emit(out, in, id, position - record.nameOffset);
    cursor = id + 1;
    return endOf(id);
  }
};

// Candidates are positions where the needle's first byte and its last byte (m - 1 further on)
// both match in either case form: far more selective than the first byte alone, or the first
// two, in names that share long common prefixes ("lib", "python").
template <size_t Width, typename Mask>
[[gnu::always_inline]] inline void blobLoop(const ScanInput& in, uint32_t begin, uint32_t end,
                                            MatchSink& out, Mask&& vectorMask) {
  if (begin >= end) return;
  BlobWalker walker{in, begin, end, out};
  uint64_t position = in.records[begin].nameOffset;
  const uint64_t stop = walker.endOf(end - 1);
  const size_t last = in.length - 1;
  while (position < stop) {
    uint32_t bits;
    if (position + Width + last <= in.blobLength) {
      bits = vectorMask(in.blob + position);
    } else {
      bits = 0;
      for (size_t k = 0; k < Width && position + k + last < in.blobLength; ++k) {
        const uint8_t* p = in.blob + position + k;
        if (foldAscii(p[0]) == in.needle[0] && foldAscii(p[last]) == in.needle[last]) {
          bits |= 1u << k;
        }
      }
    }
    if (stop - position < Width) bits &= (1u << (stop - position)) - 1;
    uint64_t next = position + Width;
    while (bits != 0) {
      uint64_t candidate = position + static_cast<uint64_t>(__builtin_ctz(bits));
      bits &= bits - 1;
      uint64_t resume = walker.tryCandidate(candidate, stop);
      if (resume == ~uint64_t{0}) return;
      if (resume != 0) {
        next = resume;
        break;
      }
    }
    position = next;
  }
}

void scanBlobSse2(const ScanInput& in, uint32_t begin, uint32_t end, MatchSink& out) {
  const size_t last = in.length - 1;
  const __m128i lower0 = _mm_set1_epi8(static_cast<char>(in.needle[0]));
  const __m128i upper0 = _mm_set1_epi8(static_cast<char>(upperForm(in.needle[0])));
  const __m128i lowerN = _mm_set1_epi8(static_cast<char>(in.needle[last]));
  const __m128i upperN = _mm_set1_epi8(static_cast<char>(upperForm(in.needle[last])));
  blobLoop<16>(in, begin, end, out, [&](const uint8_t* p) -> uint32_t {
    __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + last));
    __m128i hit = _mm_and_si128(_mm_or_si128(_mm_cmpeq_epi8(a, lower0), _mm_cmpeq_epi8(a, upper0)),
                                _mm_or_si128(_mm_cmpeq_epi8(b, lowerN), _mm_cmpeq_epi8(b, upperN)));
    return static_cast<uint32_t>(_mm_movemask_epi8(hit));
  });
}

struct Avx2Mask {
  __m256i lower0, upper0, lowerN, upperN;
  size_t last;
  [[gnu::target("avx2")]] inline uint32_t operator()(const uint8_t* p) const {
    __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + last));
    __m256i hit = _mm256_and_si256(
        _mm256_or_si256(_mm256_cmpeq_epi8(a, lower0), _mm256_cmpeq_epi8(a, upper0)),
        _mm256_or_si256(_mm256_cmpeq_epi8(b, lowerN), _mm256_cmpeq_epi8(b, upperN)));
    return static_cast<uint32_t>(_mm256_movemask_epi8(hit));
  }
};

// flatten pulls the loop and the mask into this AVX2 function, where the mask may be inlined.
[[gnu::target("avx2"), gnu::flatten]] void scanBlobAvx2(const ScanInput& in, uint32_t begin,
                                                        uint32_t end, MatchSink& out) {
  const size_t last = in.length - 1;
  Avx2Mask mask{_mm256_set1_epi8(static_cast<char>(in.needle[0])),
                _mm256_set1_epi8(static_cast<char>(upperForm(in.needle[0]))),
                _mm256_set1_epi8(static_cast<char>(in.needle[last])),
                _mm256_set1_epi8(static_cast<char>(upperForm(in.needle[last]))), last};
  blobLoop<32>(in, begin, end, out, mask);
}

}  // namespace

int firstOccurrence(std::string_view name, std::string_view needle) {
  size_t m = needle.size();
  if (m == 0 || m > name.size()) return -1;
  const auto* n = reinterpret_cast<const uint8_t*>(name.data());
  const auto* k = reinterpret_cast<const uint8_t*>(needle.data());
  for (size_t i = 0; i + m <= name.size(); ++i) {
    if (foldAscii(n[i]) == k[0] && equalFolded(n + i + 1, k + 1, m - 1)) return static_cast<int>(i);
  }
  return -1;
}

MatchQuality qualityAt(std::string_view name, size_t position, size_t needleLength) {
  if (position == 0)
    return needleLength == name.size() ? MatchQuality::exact : MatchQuality::prefix;
  return isWordBoundaryByte(static_cast<uint8_t>(name[position - 1])) ? MatchQuality::wordBoundary
                                                                      : MatchQuality::substring;
}

ScanKernel preferredKernel(const IndexStore& store) {
  if (!store.namesInRecordOrder()) return ScanKernel::sse2;
  return platform::hasAvx2() ? ScanKernel::blobAvx2 : ScanKernel::blobSse2;
}

void scanRange(const IndexStore& store, uint32_t begin, uint32_t end, std::string_view needle,
               ScanKernel kernel, std::vector<Match>& out, bool includeDeleted,
               const RecordVerdict* verdict) {
  if (needle.empty() || begin >= end) return;
  ScanInput in = inputFor(store, needle);
  if (includeDeleted) in.skipped = RecordFlags();
  in.verdict = verdict;
  MatchSink sink(out);
  switch (kernel) {
    case ScanKernel::scalar:
      return scanScalar(in, begin, end, sink);
    case ScanKernel::sse2:
      return scanSse2(in, begin, end, sink);
    case ScanKernel::blobSse2:
      return scanBlobSse2(in, begin, end, sink);
    case ScanKernel::blobAvx2:
      if (platform::hasAvx2()) return scanBlobAvx2(in, begin, end, sink);
      return scanBlobSse2(in, begin, end, sink);
  }
}

}  // namespace tarvolin::detail
