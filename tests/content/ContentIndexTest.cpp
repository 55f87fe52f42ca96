#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "support/TempTree.h"
#include "tarvolin/content/ContentIndex.h"
#include "tarvolin/content/ContentIndexError.h"
#include "tarvolin/content/ContentIndexTable.h"
#include "tarvolin/content/detail/ContentScan.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin {
namespace {

using Document = ContentIndex::Document;
using Hit = ContentIndex::Hit;
using testing::readFile;
using testing::TempTree;
using testing::writeFile;

struct Text {
  std::string path;
  std::string text;
};

ContentIndex indexOf(const std::vector<Text>& texts) {
  ContentIndex index;
  for (const Text& text : texts) index.upsert(text.path, 0, text.text);
  return index;
}

std::vector<uint8_t> bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

std::string littleEndian(uint32_t value) {
  return {static_cast<char>(value), static_cast<char>(value >> 8), static_cast<char>(value >> 16),
          static_cast<char>(value >> 24)};
}

// A content.bin image: the length prefix, the table as given and the blob.
std::string fileImage(const std::string& table, const std::string& blob) {
  return littleEndian(static_cast<uint32_t>(table.size())) + table + blob;
}

ContentIndex decodeImage(const std::string& image) {
  return ContentIndex::decode(
      std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(image.data()), image.size()));
}

TEST(ContentIndexTest, SearchFindsFirstOccurrenceWithLineAndPreview) {
  struct Case {
    const char* name;
    std::vector<Text> texts;
    std::string query;
    std::vector<Hit> expected;
  };
  const std::string longLine(300, 'x');
  // "e" + combining acute is one character of three bytes: the cut counts characters.
  std::string accents;
  for (int i = 0; i < 250; ++i) accents += "e\xCC\x81";
  std::string accentsCut;
  for (int i = 0; i < 200; ++i) accentsCut += "e\xCC\x81";
  const Case cases[] = {
      {"empty query", {{"/a", "alpha"}}, "", {}},
      {"no documents", {}, "alpha", {}},
      {"first line", {{"/a", "alpha beta\nsecond"}}, "beta", {{"/a", 1, "alpha beta"}}},
      {"after the third line feed", {{"/a", "one\ntwo\nthree\nfour"}}, "four", {{"/a", 4, "four"}}},
      {"earlier documents' line feeds never count",
       {{"/a", "x\n\n\n\n"}, {"/b", "first\nsecond"}},
       "second",
       {{"/b", 2, "second"}}},
      {"two matches give one hit on the first line",
       {{"/a", "zero\nneedle one\nneedle two"}},
       "needle",
       {{"/a", 2, "needle one"}}},
      {"hits in document order, one each",
       {{"/b", "cat"}, {"/a", "cat cat"}, {"/c", "dog"}},
       "cat",
       {{"/b", 1, "cat"}, {"/a", 1, "cat cat"}}},
      {"spaces and tabs trimmed, carriage return kept",
       {{"/a", "top\n \t  middle word\t \r\nbottom"}},
       "word",
       {{"/a", 2, "middle word\t \r"}}},
      {"capital query finds lowercase text",
       {{"/a", "caf\xC3\xA9 au lait"}},
       "CAF\xC3\x89",
       {{"/a", 1, "caf\xC3\xA9 au lait"}}},
      {"capital text found by lowercase query, preview lowercased",
       {{"/a", "\xC3\x89T\xC3\x89 Hot"}},
       "\xC3\xA9t\xC3\xA9",
       {{"/a", 1, "\xC3\xA9t\xC3\xA9 hot"}}},
      {"dotted capital I lowercases in full",
       {{"/a", "\xC4\xB0stanbul"}},
       "\xC4\xB0STANBUL",
       {{"/a", 1, "i\xCC\x87stanbul"}}},
      {"long preview cut to 200 characters",
       {{"/a", longLine}},
       "xxx",
       {{"/a", 1, longLine.substr(0, 200)}}},
      {"cut counts characters, not bytes", {{"/a", accents}}, "e\xCC\x81", {{"/a", 1, accentsCut}}},
      {"needle longer than the document", {{"/a", "ab"}, {"/b", "abc"}}, "abc", {{"/b", 1, "abc"}}},
      {"needle across two documents is not found", {{"/a", "foo"}, {"/b", "bar"}}, "oba", {}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(indexOf(c.texts).search(c.query, 100), c.expected) << c.name;
  }
}

TEST(ContentIndexTest, SearchStopsAtLimitAndSearchAllTellsTruncation) {
  ContentIndex index = indexOf({{"/a", "match"}, {"/b", "match"}, {"/c", "match"}, {"/d", "no"}});
  EXPECT_EQ(index.search("match", 2).size(), 2u);
  EXPECT_EQ(index.search("match", 0).size(), 0u);

  ContentIndex::Results two = index.searchAll("match", 2);
  EXPECT_EQ(two.hits.size(), 2u);
  EXPECT_TRUE(two.truncated);
  EXPECT_FALSE(index.searchAll("match", 3).truncated);
  ContentIndex::Results none = index.searchAll("match", 0);
  EXPECT_TRUE(none.hits.empty());
  EXPECT_TRUE(none.truncated);
  EXPECT_FALSE(index.searchAll("absent", 0).truncated);
  EXPECT_EQ(index.searchAll("match", std::numeric_limits<int64_t>::max()).hits.size(), 3u);

  ContentIndex exactlyTwo = indexOf({{"/a", "match"}, {"/b", "match"}});
  EXPECT_FALSE(exactlyTwo.searchAll("match", 2).truncated);
}

TEST(ContentIndexTest, RangesAreClampedOrSkippedWhenSearched) {
  const std::vector<uint8_t> blob = bytesOf("hello world");
  const int64_t huge = std::numeric_limits<int64_t>::max();
  ContentIndex index({{"/past-end", 6, 6, 100},
                      {"/outside", 0, 50, 5},
                      {"/negative-offset", 0, -3, 8},
                      {"/negative-length", 0, 0, -1},
                      {"/overflowing", 0, 6, huge},
                      {"/far", 0, huge, huge}},
                     blob);
  std::vector<Hit> hits = index.search("world", 10);
  ASSERT_EQ(hits.size(), 2u);
  EXPECT_EQ(hits[0], (Hit{"/past-end", 1, "world"}));
  EXPECT_EQ(hits[1], (Hit{"/overflowing", 1, "world"}));
  EXPECT_TRUE(index.search("hello", 10).empty());
}

TEST(ContentIndexTest, UpsertAndRemoveLeaveDeadBytes) {
  ContentIndex index = indexOf({{"/a", "aaaa"}, {"/b", "bb"}, {"/c", "c"}});
  EXPECT_EQ(index.textBytes(), 7);
  index.upsert("/a", 5, "Newer");
  ASSERT_EQ(index.documents().size(), 3u);
  EXPECT_EQ(index.documents()[0].path, "/b");
  EXPECT_EQ(index.documents()[2], (Document{"/a", 5, 7, 5}));
  EXPECT_EQ(index.deadBytes(), 4);
  EXPECT_EQ(index.textBytes(), 12);
  EXPECT_EQ(index.search("newer", 5), (std::vector<Hit>{{"/a", 1, "newer"}}));
  EXPECT_TRUE(index.search("aaaa", 5).empty());

  EXPECT_TRUE(index.remove("/b"));
  EXPECT_FALSE(index.remove("/b"));
  EXPECT_EQ(index.deadBytes(), 6);
  EXPECT_EQ(index.remove(std::unordered_set<std::string>{}), 0);
  EXPECT_EQ(index.remove(std::unordered_set<std::string>{"/a", "/c", "/missing"}), 2);
  EXPECT_EQ(index.deadBytes(), 12);
  EXPECT_TRUE(index.isEmpty());
}

TEST(ContentIndexTest, StalenessAllowsAMillisecond) {
  ContentIndex index;
  index.upsert("/a", 1000.0, "text");
  EXPECT_FALSE(index.isStale("/a", 1000.0005));
  EXPECT_TRUE(index.isStale("/a", 1000.002));
  EXPECT_FALSE(index.isStale("/a", 999.0));
  EXPECT_TRUE(index.isStale("/missing", 0));
}

TEST(ContentIndexTest, CompactionNeedsMoreThanTheThreshold) {
  auto indexWithDead = [](size_t dead) {
    ContentIndex index;
    index.upsert("/z", 1, std::string(dead, 'd'));
    index.upsert("/b", 2, std::string(99 - dead, 'b'));
    index.upsert("/a", 3, "a");
    index.remove("/z");
    return index;
  };
  ContentIndex half = indexWithDead(50);
  EXPECT_EQ(half.textBytes(), 100);
  EXPECT_FALSE(half.compactIfNeeded(0.5));
  EXPECT_EQ(half.deadBytes(), 50);

  ContentIndex more = indexWithDead(51);
  EXPECT_TRUE(more.compactIfNeeded(0.5));
  EXPECT_EQ(more.deadBytes(), 0);
  EXPECT_EQ(more.documents(), (std::vector<Document>{{"/a", 3, 0, 1}, {"/b", 2, 1, 48}}));
  EXPECT_EQ(more.textBytes(), 49);
  EXPECT_EQ(more.search("ab", 5), (std::vector<Hit>{}));  // no text runs across documents
  EXPECT_EQ(more.search("bbb", 5).size(), 1u);

  EXPECT_FALSE(ContentIndex().compactIfNeeded(0));
}

TEST(ContentIndexTest, CompactionClampsStoredRanges) {
  ContentIndex index({{"/b", 0, 2, 100}, {"/a", 0, 0, 2}, {"/gone", 0, 50, 1}, {"/neg", 0, -1, 2}},
                     bytesOf("abcdef"));
  index.upsert("/dead", 0, "0123456789");
  index.remove("/dead");
  ASSERT_TRUE(index.compactIfNeeded(0.1));
  EXPECT_EQ(index.documents(), (std::vector<Document>{{"/a", 0, 0, 2}, {"/b", 0, 2, 14}}));
  EXPECT_EQ(std::string(index.blob().begin(), index.blob().end()), "abcdef0123456789");
}

TEST(ContentIndexTest, WriteAndReadBackKeepDocumentsAndBlob) {
  TempTree tree;
  ContentIndex index;
  index.upsert("/home/u/Documents/r\xC3\xA9sum\xC3\xA9.pdf", 1712345678.123456, "Hello\nWorld");
  index.upsert("/quote\"back\\slash\ttab", -1.5, "second");
  index.upsert("/whole", 3, "third");
  index.upsert("/whole", 4, "fourth");  // leaves dead bytes, which the file keeps
  index.write(tree / "sub/content.bin");

  ContentIndex read = ContentIndex::read(tree / "sub/content.bin");
  EXPECT_EQ(read.documents(), index.documents());
  EXPECT_TRUE(
      std::equal(read.blob().begin(), read.blob().end(), index.blob().begin(), index.blob().end()));
  EXPECT_EQ(read.deadBytes(), 0);

  // A read index searches its file's bytes in place; changing it (or a copy) takes its own
  // copy first, and the file and other copies stay as they were.
  ContentIndex changed = read;
  changed.upsert("/whole", 5, "fifth");
  EXPECT_TRUE(changed.compactIfNeeded(0.0));
  EXPECT_EQ(changed.search("fifth", 5).size(), 1u);
  EXPECT_EQ(read.search("fourth", 5).size(), 1u);
  EXPECT_EQ(read.search("fifth", 5).size(), 0u);
  EXPECT_EQ(ContentIndex::read(tree / "sub/content.bin"), read);

  std::string file = readFile(tree / "sub/content.bin");
  uint32_t tableBytes = static_cast<uint8_t>(file[0]) | static_cast<uint8_t>(file[1]) << 8 |
                        static_cast<uint8_t>(file[2]) << 16 | static_cast<uint8_t>(file[3]) << 24;
  std::string table = file.substr(4, tableBytes);
  const std::string first =
      "[{\"p\":\"/home/u/Documents/"
      "r\xC3\xA9sum\xC3\xA9.pdf\",\"m\":1712345678.123456,\"o\":0,\"l\":11}";
  EXPECT_EQ(table.substr(0, first.size()), first);
  EXPECT_NE(table.find("{\"p\":\"/whole\",\"m\":4,\"o\":"), std::string::npos);
  EXPECT_EQ(file.substr(4 + tableBytes), "hello\nworldsecondthirdfourth");

  ContentIndex().write(tree / "empty.bin");
  EXPECT_EQ(readFile(tree / "empty.bin"), littleEndian(2) + "[]");
  EXPECT_EQ(ContentIndex::read(tree / "empty.bin"), ContentIndex());
}

TEST(ContentIndexTest, ShortFilesReadAsTheEmptyIndex) {
  TempTree tree;
  writeFile(tree / "three", "abc");
  EXPECT_EQ(ContentIndex::read(tree / "three"), ContentIndex());
  writeFile(tree / "announces-more", littleEndian(100) + "[]");
  EXPECT_EQ(ContentIndex::read(tree / "announces-more"), ContentIndex());
  writeFile(tree / "huge-prefix", littleEndian(0xFFFFFFFF) + "[]");
  EXPECT_EQ(ContentIndex::read(tree / "huge-prefix"), ContentIndex());
  EXPECT_THROW(ContentIndex::read(tree / "missing"), std::system_error);
  EXPECT_THROW(ContentIndex::read(tree.root()), std::system_error);
}

TEST(ContentIndexTest, DecodingAcceptsAnyMemberOrderAndUnknownMembers) {
  ContentIndex index =
      decodeImage(fileImage(R"([{"l":3,"o":1,"m":2,"p":"/x","extra":[{"deep":[1,2]}],"n":null},)"
                            R"( {"p":"/\u00e9\n","m":-0.5e1,"o":0,"l":4}])",
                            "abcd"));
  EXPECT_EQ(index.documents(), (std::vector<Document>{{"/x", 2, 1, 3}, {"/\xC3\xA9\n", -5, 0, 4}}));
}

TEST(ContentIndexTest, CompactReaderTakesOnlyWhatTheWriterWrites) {
  const std::vector<Document> documents = {{"/q\"b\\s\t\xC3\xA9", 1712345678.123456, 0, 7},
                                           {"/b", -2.5e-7, -1, INT64_MAX},
                                           {"/c", 3, 4, 0}};
  const std::string table = ContentIndexTable::encode(documents);
  EXPECT_EQ(ContentIndexTable::decodeCompact(table), documents);
  EXPECT_EQ(ContentIndexTable::decodeGeneral(table), documents);
  for (const char* other :
       {R"([{"m":1,"p":"/a","o":0,"l":1}])", R"([ ])", R"([{"p":"/\u00e9","m":1,"o":0,"l":1}])",
        R"([{"p":"/a","m":01,"o":0,"l":1}])", R"([{"p":"/a","m":1,"o":1.0,"l":1}])",
        R"([{"p":"/a","m":1,"o":0,"l":1}] )",
        R"([{"p":"/a","m":1,"o":0,"l":9223372036854775808}])"}) {
    EXPECT_EQ(ContentIndexTable::decodeCompact(other), std::nullopt) << other;
  }
  const std::vector<Document> control = {{"/\x01", 1, 0, 1}};  // written as \u0001
  EXPECT_EQ(ContentIndexTable::decode(ContentIndexTable::encode(control)), control);
  EXPECT_EQ(ContentIndexTable::decode(R"([{"m":1,"p":"/a","o":0,"l":1}])"),
            (std::vector<Document>{{"/a", 1, 0, 1}}));
}

TEST(ContentIndexTest, MalformedTablesThrow) {
  const struct {
    const char* name;
    std::string table;
  } cases[] = {
      {"not JSON", "[{"},
      {"not an array", R"({"p":"/a","m":1,"o":0,"l":1})"},
      {"an array of arrays", "[[]]"},
      {"a number in the array", "[1]"},
      {"missing member", R"([{"p":"/a","m":1,"o":0}])"},
      {"path not a string", R"([{"p":1,"m":1,"o":0,"l":1}])"},
      {"time a string", R"([{"p":"/a","m":"1","o":0,"l":1}])"},
      {"offset a float", R"([{"p":"/a","m":1,"o":0.5,"l":1}])"},
      {"length past 64 bits", R"([{"p":"/a","m":1,"o":0,"l":18446744073709551615}])"},
      {"offset an object", R"([{"p":"/a","m":1,"o":{},"l":1}])"},
      {"trailing bytes", R"([] x)"},
      {"two arrays", "[][]"},
      {"empty table", ""},
      {"deep nesting", std::string(100000, '[') + std::string(100000, ']')},
  };
  for (const auto& c : cases) {
    try {
      decodeImage(fileImage(c.table, "blob"));
      ADD_FAILURE() << c.name << ": no error";
    } catch (const ContentIndexError& error) {
      EXPECT_EQ(error.kind(), ContentIndexError::Kind::malformedTable) << c.name;
    }
  }
}

TEST(ContentIndexTest, CorruptRangesReadAndStayInsideTheBlob) {
  ContentIndex index = decodeImage(fileImage(
      R"([{"p":"/a","m":0,"o":9223372036854775807,"l":9223372036854775807},)"
      R"({"p":"/b","m":0,"o":-9223372036854775808,"l":5},{"p":"/c","m":0,"o":2,"l":1000}])",
      "xxneedle"));
  ASSERT_EQ(index.documents().size(), 3u);
  EXPECT_EQ(index.search("needle", 10), (std::vector<Hit>{{"/c", 1, "needle"}}));
}

TEST(ContentIndexTest, FailedWriteLeavesThePreviousFileWhole) {
  TempTree tree;
  ContentIndex old = indexOf({{"/old", "old text"}});
  old.write(tree / "content.bin");
  const std::string before = readFile(tree / "content.bin");
  // The temporary file's place is taken by a folder, so the new file cannot even be started.
  tree.add("content.bin.tmp/keep");
  ContentIndex fresh = indexOf({{"/new", "new text"}});
  EXPECT_THROW(fresh.write(tree / "content.bin"), std::system_error);
  EXPECT_EQ(readFile(tree / "content.bin"), before);

  tree.add("plain-file", "x");
  EXPECT_THROW(fresh.write(tree / "plain-file/content.bin"), std::system_error);
}

TEST(ContentIndexTest, WriteRefusesTimesJsonCannotHold) {
  TempTree tree;
  ContentIndex index;
  index.upsert("/a", std::numeric_limits<double>::quiet_NaN(), "x");
  EXPECT_THROW(index.write(tree / "content.bin"), ContentIndexError);
  EXPECT_FALSE(std::filesystem::exists(tree / "content.bin"));
}

// The vector kernels against the scalar one, on random text from a small alphabet (many partial
// matches) and every range near the blob's end, where the loads must fall back.
TEST(ContentScanTest, VectorKernelsAgreeWithScalar) {
  std::mt19937 random(7);
  const std::string alphabet = "ab\n";
  for (int round = 0; round < 200; ++round) {
    std::vector<uint8_t> blob(1 + random() % 300);
    for (uint8_t& byte : blob) byte = static_cast<uint8_t>(alphabet[random() % alphabet.size()]);
    std::vector<uint8_t> needle(1 + random() % 6);
    for (uint8_t& byte : needle) byte = static_cast<uint8_t>(alphabet[random() % 2]);
    for (int range = 0; range < 20; ++range) {
      size_t begin = random() % blob.size();
      size_t end = begin + random() % (blob.size() - begin + 1);
      if (range == 0) end = blob.size();
      size_t expected =
          detail::findFirst(blob, begin, end, needle, detail::ContentScanKernel::scalar);
      for (auto kernel : {detail::ContentScanKernel::sse2, detail::ContentScanKernel::avx2}) {
        ASSERT_EQ(detail::findFirst(blob, begin, end, needle, kernel), expected)
            << "round " << round << " begin " << begin << " end " << end;
      }
    }
    size_t feeds = 0;
    for (uint8_t byte : blob) feeds += byte == '\n';
    ASSERT_EQ(detail::countLineFeeds(blob), feeds);
  }
}

}  // namespace
}  // namespace tarvolin

namespace tarvolin {
namespace {

// Past 8 MiB of text a search runs in shards on several threads; joined, they must give what one
// pass over the table gives: the same documents in table order, the same lines, cut at the limit.
TEST(ContentIndexTest, ShardedSearchGivesTheSinglePassHits) {
  ContentIndex index;
  std::string filler(4000, 'x');
  std::vector<std::string> paths;
  for (int d = 0; d < 3000; ++d) {  // about 12 MB of text
    std::string text = filler;
    if (d % 7 == 0) text += "\nline two has needle" + std::to_string(d % 3);
    if (d % 500 == 0) text += "\nrare marker";
    index.upsert("/docs/" + std::to_string(d), 1, text);
  }
  ASSERT_GT(index.blob().size(), size_t{8} << 20);
  struct Case {
    const char* needle;
    int64_t limit;
  } cases[] = {{"needle", 1000},     {"needle", 5},  {"needle1", 100000}, {"rare marker", 3},
               {"rare marker", 100}, {"absent", 10}, {"needle", 0}};
  for (const Case& c : cases) {
    std::vector<std::pair<std::string, int64_t>> expected, found;
    for (const ContentIndex::Document& document : index.documents()) {
      if (static_cast<int64_t>(expected.size()) >= c.limit) break;
      std::string_view text(reinterpret_cast<const char*>(index.blob().data()) + document.offset,
                            static_cast<size_t>(document.length));
      size_t at = text.find(c.needle);
      if (at == std::string_view::npos) continue;
      expected.emplace_back(document.path, 1 + std::count(text.begin(), text.begin() + at, '\n'));
    }
    for (const ContentIndex::Hit& hit : index.search(c.needle, c.limit)) {
      found.emplace_back(hit.path, hit.line);
    }
    EXPECT_EQ(found, expected) << c.needle << " limit " << c.limit;
  }
}

}  // namespace
}  // namespace tarvolin
