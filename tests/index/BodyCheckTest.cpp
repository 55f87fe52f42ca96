#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "tarvolin/index/FastHash64.h"
#include "tarvolin/index/FileRecord.h"
#include "tarvolin/index/detail/BodyCheck.h"
#include "tarvolin/platform/CpuFeatures.h"

namespace tarvolin::detail {
namespace {

// What the checks must find, record by record, written the obvious way.
BodyCheck expected(const std::vector<FileRecord>& records, uint32_t blobLength,
                   std::span<const uint8_t> body) {
  bool inside = true, inOrder = true, anyDeleted = false;
  uint64_t previousEnd = 0;
  for (const FileRecord& r : records) {
    anyDeleted |= r.flags.contains(RecordFlags::deleted);
    inside &= r.parentID == FileRecord::rootParentID || r.parentID < records.size();
    inside &= uint64_t{r.nameOffset} + r.nameLen <= blobLength;
    inOrder &= r.nameOffset >= previousEnd;
    previousEnd = uint64_t{r.nameOffset} + r.nameLen;
  }
  return {FastHash64::hash(body), inside, inOrder, anyDeleted};
}

// Both kernels agree with the plain reading on any records: counts around the eight-record
// step, links at and around the limits, names in order, touching, overlapping, past the blob and
// near the top of the offset range; one deleted record anywhere, or none.
TEST(BodyCheckTest, KernelsAgreeWithThePlainReading) {
  std::vector<CheckKernel> kernels = {CheckKernel::scalar};
  if (platform::hasAvx2()) kernels.push_back(CheckKernel::avx2);
  std::mt19937 random(7);
  for (int round = 0; round < 3000; ++round) {
    uint32_t count = random() % 40;
    const uint32_t parents[] = {0, 1, count - 1, count, count + 1, 0xFFFFFFFE, 0xFFFFFFFF};
    std::vector<FileRecord> records(count);
    uint64_t offset = round % 7 == 0 ? 0xFFFFFF00u : random() % 100;
    for (FileRecord& r : records) {
      r.parentID = random() % 4 != 0 ? random() % std::max(count, 1u) : parents[random() % 7];
      r.nameLen = static_cast<uint8_t>(random() % 4 == 0 ? 255 : random() % 20);
      if (random() % 60 == 0) offset = offset > 30 ? offset - 30 : 0;  // a name that starts early
      r.nameOffset = static_cast<uint32_t>(offset);
      offset = std::min<uint64_t>(offset + r.nameLen + random() % 3, 0xFFFFFFFF);
      r.mtime = static_cast<uint32_t>(random());
      r.flags = RecordFlags(static_cast<uint8_t>(random())) - RecordFlags::deleted;
      r.size = random();
    }
    if (count > 0 && round % 2 == 0) records[random() % count].flags.insert(RecordFlags::deleted);
    // A blob that ends just before, at or after the last name (never over 4000 bytes).
    int64_t end =
        static_cast<int64_t>(std::min<uint64_t>(offset, 4000)) + int64_t(random() % 5) - 2;
    auto blobLength = static_cast<uint32_t>(std::clamp<int64_t>(end, 0, 4000));
    std::vector<uint8_t> body(records.size() * sizeof(FileRecord) + blobLength);
    if (!records.empty())
      std::memcpy(body.data(), records.data(), records.size() * sizeof(FileRecord));
    for (size_t i = records.size() * sizeof(FileRecord); i < body.size(); ++i)
      body[i] = static_cast<uint8_t>(random());

    BodyCheck want = expected(records, blobLength, body);
    for (CheckKernel kernel : kernels) {
      BodyCheck got = checkBody(body, count, blobLength, kernel);
      SCOPED_TRACE(testing::Message() << "round " << round << ", kernel " << int(kernel));
      ASSERT_EQ(got.checksum, want.checksum);
      ASSERT_EQ(got.linksInside, want.linksInside);
      ASSERT_EQ(got.namesInRecordOrder, want.namesInRecordOrder);
      ASSERT_EQ(got.anyDeleted, want.anyDeleted);
    }
  }
}

}  // namespace
}  // namespace tarvolin::detail
