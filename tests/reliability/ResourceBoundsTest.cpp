// What an untrusted input can cost: each input here is built to make a reader or the matcher
// spend without end, and each must be refused or cut within a bounded time and memory, while
// sensible inputs still give what they give.

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "tarvolin/catalog/EFUImporter.h"
#include "tarvolin/content/ContentIndex.h"
#include "tarvolin/content/ZipReader.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/platform/Regex.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/QueryParser.h"

namespace tarvolin {
namespace {

using Clock = std::chrono::steady_clock;
using testing::TempTree;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

TEST(ResourceBoundsTest, BacktrackingExpressionsGiveUpAndSensibleOnesStillMatch) {
  struct Case {
    const char* pattern;
    std::string subject;
    bool matches;
  };
  const std::string run255 = std::string(254, 'a') + "!";
  const Case cases[] = {
      // Built to backtrack: exponential without a bound, so "no match" after the step budget.
      {"(a+)+$", run255, false},
      {"(a|aa)+$", run255, false},
      {"(a|a)*b", std::string(100'000, 'a'), false},
      {"(.*a){12}", std::string(250, 'a') + "b", true},
      // Sensible expressions on names and long lines.
      {"^report.*\\.md$", "report-2024-final.md", true},
      {"(\\w+[-_ ]?)+\\.txt$", "some_long-file name.txt", true},
      {"\\d{4}-\\d{2}-\\d{2}", std::string(200'000, 'x') + "2024-05-17", true},
      {"^.*a.*b.*c.*d$", std::string(200, 'x') + "abcd", true},
  };
  for (const Case& c : cases) {
    auto regex = platform::Regex::compile(c.pattern);
    ASSERT_TRUE(regex) << c.pattern;
    Clock::time_point start = Clock::now();
    EXPECT_EQ(regex->search(c.subject), c.matches) << c.pattern;
    EXPECT_LT(secondsSince(start), 0.5) << c.pattern;
  }
}

TEST(ResourceBoundsTest, BacktrackingExpressionOverManyHostileNamesIsBounded) {
  TempTree tree;
  std::vector<testing::FixtureEntry> entries;
  for (int i = 0; i < 2000; ++i) {
    entries.push_back({"/h/" + std::string(240, 'a') + std::to_string(i) + "!"});
  }
  auto store = testing::writeAndLoad(testing::buildTree(entries), tree / "index.bin");
  Matcher matcher(store);
  Clock::time_point start = Clock::now();
  EXPECT_TRUE(matcher.match(QueryParser::parse("/(a+)+\\d+$/")).empty());
  double seconds = secondsSince(start);
  RecordProperty("seconds", std::to_string(seconds));
  EXPECT_LT(seconds, 10.0);  // about 0.3 ms a name when every name uses its whole budget
}

TEST(ResourceBoundsTest, QueryOfOneMegabyteIsParsedAndRefusedOrAnswered) {
  TempTree tree;
  auto store = testing::writeAndLoad(testing::buildTree({{"/a/report.md"}, {"/a/b.txt"}}),
                                     tree / "index.bin");
  std::mt19937 random(7);
  std::string bytes(1 << 20, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  std::string words;
  while (words.size() < (1 << 20)) words += "w" + std::to_string(words.size()) + " ";
  const std::string texts[] = {bytes, words, std::string(1 << 20, 'a'), std::string(1 << 20, '(')};
  for (const std::string& text : texts) {
    Clock::time_point start = Clock::now();
    Matcher matcher(store);
    try {
      matcher.match(QueryParser::parse(text));
    } catch (const std::length_error&) {
      // more different terms than a query may hold
    }
    EXPECT_LT(secondsSince(start), 5.0) << text.substr(0, 20);
  }
}

// A zip archive of one stored entry and a central directory that lists it `count` times.
std::vector<uint8_t> zipListingOneEntry(uint32_t dataBytes, uint32_t count, uint16_t claimed) {
  std::vector<uint8_t> zip;
  auto put16 = [&](uint32_t v) {
    zip.push_back(v & 0xFF);
    zip.push_back((v >> 8) & 0xFF);
  };
  auto put32 = [&](uint32_t v) {
    put16(v & 0xFFFF);
    put16(v >> 16);
  };
  const std::string name = "word/document.xml";
  put32(0x04034b50);
  for (int i = 0; i < 5; ++i) put16(0);  // version, flags, method (stored), time, date
  put32(0);                              // crc
  put32(dataBytes);
  put32(dataBytes);
  put16(name.size());
  put16(0);
  zip.insert(zip.end(), name.begin(), name.end());
  zip.insert(zip.end(), dataBytes, 'x');
  const uint32_t directoryAt = zip.size();
  for (uint32_t i = 0; i < count; ++i) {
    put32(0x02014b50);
    for (int j = 0; j < 6; ++j) put16(0);  // versions, flags, method, time, date
    put32(0);
    put32(dataBytes);
    put32(dataBytes);
    put16(name.size());
    for (int j = 0; j < 4; ++j) put16(0);  // extra, comment, disk, internal attributes
    put32(0);                              // external attributes
    put32(0);                              // local header at 0
    zip.insert(zip.end(), name.begin(), name.end());
  }
  const uint32_t directoryBytes = zip.size() - directoryAt;
  put32(0x06054b50);
  put16(0);
  put16(0);
  put16(claimed);
  put16(claimed);
  put32(directoryBytes);
  put32(directoryAt);
  put16(0);
  return zip;
}

TEST(ResourceBoundsTest, ZipWhoseDirectoryListsOneEntry65535TimesReadsAtMostTheTotalBound) {
  struct Case {
    uint32_t dataBytes;
    uint32_t listed;
    uint16_t claimed;
    size_t expected;
  };
  const Case cases[] = {
      // 65,535 references to 1 MiB: 64 GiB unbounded, the first 64 MiB with the bound.
      {1 << 20, 65535, 65535, ZipReader::maxTotalBytes >> 20},
      // A directory claiming 65,535 entries that holds one: the walk ends at the end of it.
      {1000, 1, 65535, 1},
      // Small entries all fit.
      {10, 65535, 65535, 65535},
  };
  for (const Case& c : cases) {
    std::vector<uint8_t> zip = zipListingOneEntry(c.dataBytes, c.listed, c.claimed);
    Clock::time_point start = Clock::now();
    std::vector<ZipReader::Entry> read =
        ZipReader::entries(zip, [](std::string_view) { return true; });
    EXPECT_LT(secondsSince(start), 5.0);
    EXPECT_EQ(read.size(), c.expected) << c.dataBytes;
    uint64_t total = 0;
    for (const auto& entry : read) total += entry.data.size();
    EXPECT_LE(total, ZipReader::maxTotalBytes);
  }
}

TEST(ResourceBoundsTest, EFUFieldsAndRowsAreCutAtTheirBounds) {
  struct Case {
    const char* what;
    std::string list;
  };
  const std::string huge(64 << 20, 'n');
  const Case cases[] = {
      {"plain field", "Filename,Size\nC:\\" + huge + ",1\n"},
      {"quoted field", "Filename,Size\n\"C:\\" + huge + "\",1\n"},
      {"unclosed quote", "Filename,Size\n\"C:\\" + huge},
      {"row of commas", "Filename,Size\nC:\\a," + std::string(32 << 20, ',') + "\n"},
  };
  for (const Case& c : cases) {
    size_t longest = 0;
    size_t widest = 0;
    Clock::time_point start = Clock::now();
    try {
      EFUImporter::parseCSV(c.list, [&](int64_t, std::span<const std::string> fields) {
        widest = std::max(widest, fields.size());
        for (const std::string& field : fields) longest = std::max(longest, field.size());
      });
    } catch (const EFUImporter::EFUError&) {
      // the unclosed quote
    }
    EXPECT_LT(secondsSince(start), 10.0) << c.what;
    // Replacement characters may make a cut field a little longer once decoded.
    EXPECT_LE(longest, EFUImporter::maxFieldBytes + 4) << c.what;
    EXPECT_LE(widest, EFUImporter::maxRowFields) << c.what;
  }
  // A list with a huge name still imports; the name is cut to a name's length.
  EFUImporter::Result result = EFUImporter::build("Filename,Size\nC:\\" + huge + ",1\n");
  EXPECT_EQ(result.builder.recordCount(), 2u);
}

TEST(ResourceBoundsTest, ContentTableClaimingFourGigabytesIsRefusedWithoutReading) {
  TempTree tree;
  std::string file = "\xFF\xFF\xFF\xFF[{\"path\":\"/a\",\"modified\":0,\"offset\":0,\"length\":9}]";
  testing::writeFile(tree / "content.bin", file);
  Clock::time_point start = Clock::now();
  EXPECT_TRUE(ContentIndex::read(tree / "content.bin").documents().empty());
  EXPECT_TRUE(ContentIndex::decode(std::span<const uint8_t>(
                                       reinterpret_cast<const uint8_t*>(file.data()), file.size()))
                  .documents()
                  .empty());
  EXPECT_LT(secondsSince(start), 1.0);
}

TEST(ResourceBoundsTest, IndexHeaderClaimingTwoToTheThirtyTwoRecordsIsRefused) {
  TempTree tree;
  testing::writeAndLoad(testing::buildTree({{"/a/b.txt"}}), tree / "index.bin");
  std::string bytes = testing::readFile(tree / "index.bin");
  std::memset(bytes.data() + 8, 0xFF, 4);  // recordCount: 2^32 - 1, the most a header holds
  testing::writeFile(tree / "index.bin", bytes);
  Clock::time_point start = Clock::now();
  auto outcome = loadIndex(tree / "index.bin");
  EXPECT_FALSE(std::holds_alternative<std::shared_ptr<const IndexStore>>(outcome));
  EXPECT_LT(secondsSince(start), 1.0);
}

}  // namespace
}  // namespace tarvolin
