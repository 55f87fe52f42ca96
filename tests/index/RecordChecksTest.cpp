#include "tarvolin/index/detail/RecordChecks.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "tarvolin/platform/CpuFeatures.h"

namespace tarvolin::detail {
namespace {

// The AVX2 checks reach the same verdict as the scalar ones on any records: links at and around
// the limits, names in order, touching, overlapping, and near the top of the offset range.
TEST(RecordChecksTest, Avx2AgreesWithScalar) {
  if (!platform::hasAvx2()) GTEST_SKIP() << "no AVX2 on this machine";
  std::mt19937 random(7);
  const uint32_t parents[] = {0, 1, 99, 100, 101, 0xFFFFFFFE, 0xFFFFFFFF};
  for (int round = 0; round < 2000; ++round) {
    std::vector<FileRecord> records(4 * (1 + random() % 24));
    uint64_t offset = round % 3 == 0 ? 0xFFFFFF00u : random() % 1000;
    for (FileRecord& r : records) {
      r.parentID = parents[random() % 7];
      r.nameLen = static_cast<uint8_t>(random() % 4 == 0 ? 255 : random() % 20);
      // Mostly in order; now and then a name that starts early.
      if (random() % 50 == 0) offset = offset > 30 ? offset - 30 : 0;
      r.nameOffset = static_cast<uint32_t>(offset);
      offset = std::min<uint64_t>(offset + r.nameLen + random() % 3, 0xFFFFFFFF);
      r.mtime = static_cast<uint32_t>(random());
      r.flags = RecordFlags(static_cast<uint8_t>(random()));
      r.size = random();
    }
    RecordChecks scalar, vector;
    scalar.previousEnd = vector.previousEnd = round % 5 == 0 ? 500 : 0;
    scalar.noteAll(records.data(), records.size());
    vector.noteAllAvx2(records.data(), records.size());
    ASSERT_EQ(vector.parentLimit, scalar.parentLimit) << "round " << round;
    ASSERT_EQ(vector.unordered, scalar.unordered) << "round " << round;
    ASSERT_EQ(vector.previousEnd, scalar.previousEnd) << "round " << round;
  }
}

}  // namespace
}  // namespace tarvolin::detail
