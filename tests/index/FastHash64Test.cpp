#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "tarvolin/index/FastHash64.h"

namespace tarvolin {
namespace {

std::vector<uint8_t> countingBytes(size_t n) {
  std::vector<uint8_t> bytes(n);
  std::iota(bytes.begin(), bytes.end(), uint8_t{0});
  return bytes;
}

TEST(FastHash64Test, KnownValues) {
  struct Case {
    std::vector<uint8_t> bytes;
    uint64_t expected;
  };
  const Case cases[] = {
      {{}, 0x8E4B63091ED84BCDull},
      {{'a', 'b', 'c'}, 0xEFA46C530CE0A1C4ull},
      {countingBytes(32), 0xCECDAAB13F2C2739ull},
      {countingBytes(100), 0x22A187316293A911ull},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(FastHash64::hash(c.bytes), c.expected) << c.bytes.size() << " bytes";
    FastHash64::Rolling rolling;
    rolling.update(c.bytes);
    EXPECT_EQ(rolling.finish(), c.expected) << c.bytes.size() << " bytes";
  }
}

TEST(FastHash64Test, RollingAgreesHoweverTheInputIsSplit) {
  std::vector<uint8_t> bytes = countingBytes(100);
  const std::vector<std::vector<size_t>> splits = {{1}, {31, 33, 36}, {7, 64, 29}, {0, 100}};
  for (const auto& parts : splits) {
    FastHash64::Rolling rolling;
    size_t at = 0;
    while (at < bytes.size()) {
      for (size_t part : parts) {
        size_t take = std::min(part, bytes.size() - at);
        rolling.update(std::span<const uint8_t>(bytes).subspan(at, take));
        at += take;
      }
    }
    EXPECT_EQ(rolling.finish(), 0x22A187316293A911ull);
    EXPECT_EQ(rolling.finish(), 0x22A187316293A911ull) << "finish must not change the state";
  }
}

TEST(FastHash64Test, OneShotAndRollingAgreeOnEveryLengthAndSplit) {
  std::vector<uint8_t> bytes = countingBytes(200);
  for (size_t n = 0; n <= bytes.size(); n += 7) {
    std::span<const uint8_t> run(bytes.data(), n);
    for (size_t cut = 0; cut <= n; cut += 13) {
      FastHash64::Rolling rolling;
      rolling.update(run.first(cut));
      rolling.update(run.subspan(cut));
      ASSERT_EQ(rolling.finish(), FastHash64::hash(run)) << n << " split at " << cut;
    }
  }
}

}  // namespace
}  // namespace tarvolin
