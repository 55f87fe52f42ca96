#include "tarvolin/index/detail/RecordChecks.h"

namespace tarvolin::detail {

[[gnu::target("avx2")]] void RecordChecksAvx2::finish(RecordChecks& into) const {
  alignas(32) uint32_t limits[8];
  _mm256_store_si256(reinterpret_cast<__m256i*>(limits), limit);
  for (uint32_t value : limits) into.parentLimit = std::max(into.parentLimit, value);
  into.unordered = !_mm256_testz_si256(late, late);
  into.previousEnd = static_cast<uint64_t>(_mm256_extract_epi64(carry, 0));
}

[[gnu::target("avx2")]] void RecordChecks::noteAllAvx2(const FileRecord* records, size_t count) {
  RecordChecksAvx2 vector(*this);
  for (size_t i = 0; i < count; i += 4) vector.noteFour(records + i);
  vector.finish(*this);
}

}  // namespace tarvolin::detail
