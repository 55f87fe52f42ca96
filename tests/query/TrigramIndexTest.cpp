#include <gtest/gtest.h>

#include <cstring>

#include "support/TempTree.h"
#include "tarvolin/query/TrigramIndex.h"

namespace tarvolin {
namespace {

using testing::readFile;
using testing::TempTree;
using testing::writeFile;

// `count` records named "filler", with `special` at the given IDs.
TrigramIndex buildWith(uint32_t count, const std::vector<std::pair<uint32_t, std::string>>& special,
                       std::function<bool()> isCancelled = nullptr) {
  std::vector<std::string> names(count, "filler");
  for (const auto& [id, name] : special) names[id] = name;
  return TrigramIndex::build([&](uint32_t id) { return std::string_view(names[id]); }, count,
                             isCancelled);
}

TEST(TrigramIndexTest, CandidateBlocksFollowTheUsefulnessRule) {
  TrigramIndex index = buildWith(3000, {{10, "needle"},
                                        {2100, "NEEDLE.txt"},
                                        {1500, "xyz"},
                                        {1100, "abcd"},
                                        {1200, "cdef"},
                                        {1600, "lexy"}});
  EXPECT_EQ(index.blockCount(), 3);
  EXPECT_EQ(index.candidateBlocks("ne"), std::nullopt) << "two bytes: no opinion";
  EXPECT_EQ(index.candidateBlocks("qqq"), std::vector<uint32_t>()) << "absent trigram";
  EXPECT_EQ(index.candidateBlocks("needle"), std::nullopt) << "2 of 3 blocks is over 55%";
  EXPECT_EQ(index.candidateBlocks("XYZ"), std::vector<uint32_t>{1});
  // Every trigram of "abcdef" is in block 1, though no name there holds the whole needle.
  EXPECT_EQ(index.candidateBlocks("abcdef"), std::vector<uint32_t>{1});
  // Trigrams that occur only in different blocks: empty intersection.
  EXPECT_EQ(index.candidateBlocks("dlexy"), std::vector<uint32_t>());
}

TEST(TrigramIndexTest, KeysFoldAsciiAndSkipShortNames) {
  TrigramIndex index = buildWith(3, {{0, "ABC"}, {1, "abc"}, {2, "ab"}});
  EXPECT_EQ(index.keys(), std::vector<uint32_t>{0x616263});
  EXPECT_EQ(index.postings(), std::vector<uint32_t>{0});
  EXPECT_EQ(index.postingStart(), (std::vector<uint32_t>{0, 1}));
  EXPECT_EQ(index.byteSize(), 4u * (1 + 2 + 1));
}

TEST(TrigramIndexTest, RangesAndCancellation) {
  EXPECT_EQ(TrigramIndex::range(2, 2500), (std::pair<uint32_t, uint32_t>{2048, 2500}));
  EXPECT_EQ(TrigramIndex::range(0, 0), (std::pair<uint32_t, uint32_t>{0, 0}));
  TrigramIndex cancelled = buildWith(10, {{1, "abcdef"}}, [] { return true; });
  EXPECT_TRUE(cancelled.keys().empty());
  EXPECT_EQ(cancelled.postingStart(), std::vector<uint32_t>{0});
  EXPECT_EQ(cancelled.candidateBlocks("abc"), std::vector<uint32_t>());
  TrigramIndex empty = buildWith(0, {});
  EXPECT_EQ(empty.blockCount(), 0);
}

TEST(TrigramIndexTest, SideFileRoundTripsAndRejectsEveryMismatch) {
  TempTree tree;
  TrigramIndex index = buildWith(5000, {{10, "report.md"}, {4000, "Reporter"}});
  std::filesystem::path path = tree / "trigram.cache";
  index.write(path, 0x1122334455667788ull);
  EXPECT_FALSE(std::filesystem::exists(tree / "trigram.cache.tmp"));
  EXPECT_EQ(TrigramIndex::load(path, 0x1122334455667788ull), index);

  std::string good = readFile(path);
  struct Case {
    const char* what;
    std::function<void(std::string&)> damage;
  };
  const Case cases[] = {
      {"other checksum", [](std::string& b) { b[8] ^= 1; }},
      {"version 2", [](std::string& b) { b[4] = 2; }},
      {"bad magic", [](std::string& b) { b[0] = 'X'; }},
      {"one word short", [](std::string& b) { b.resize(b.size() - 4); }},
      {"one word long", [](std::string& b) { b += std::string(4, '\0'); }},
      {"under 32 bytes", [](std::string& b) { b.resize(31); }},
      {"posting start out of range",
       [](std::string& b) {
         uint32_t k;
         std::memcpy(&k, b.data() + 20, 4);
         uint32_t huge = 0x7FFFFFFF;
         std::memcpy(b.data() + 32 + 4 * k + 4, &huge, 4);
       }},
  };
  for (const Case& c : cases) {
    std::string bytes = good;
    c.damage(bytes);
    writeFile(path, bytes);
    EXPECT_EQ(TrigramIndex::load(path, 0x1122334455667788ull), std::nullopt) << c.what;
  }
  // Two to three trailing bytes beyond whole words are ignored.
  writeFile(path, good + "xy");
  EXPECT_TRUE(TrigramIndex::load(path, 0x1122334455667788ull).has_value());
  EXPECT_EQ(TrigramIndex::load(tree / "absent", 1), std::nullopt);

  // Regression: an index without keys or postings has empty arrays to copy back.
  TrigramIndex empty = buildWith(0, {});
  empty.write(tree / "empty.cache", 7);
  EXPECT_EQ(TrigramIndex::load(tree / "empty.cache", 7), empty);
}

}  // namespace
}  // namespace tarvolin
