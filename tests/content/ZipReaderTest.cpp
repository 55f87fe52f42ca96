#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/TempTree.h"
#include "support/ZipWriter.h"
#include "tarvolin/content/ZipReader.h"

namespace tarvolin {
namespace {

using ::testing::ElementsAre;
using testing::makeZip;
using testing::ZipEntrySpec;

std::span<const uint8_t> bytesOf(const std::string& s) {
  return {reinterpret_cast<const uint8_t*>(s.data()), s.size()};
}

std::vector<uint8_t> vec(const std::string& s) { return {s.begin(), s.end()}; }

bool all(std::string_view) { return true; }

std::vector<std::string> namesIn(const std::string& archive) {
  std::vector<std::string> names;
  for (ZipReader::Entry& e : ZipReader::entries(bytesOf(archive), all)) names.push_back(e.name);
  return names;
}

TEST(ZipReaderTest, ReadsStoredAndDeflatedEntriesInDirectoryOrder) {
  std::string binary("\0\x01\xFFPK\x05\x06 stored", 15);
  std::string text(5000, 'x');
  std::string archive = makeZip({{"b.bin", binary, 0}, {"a.txt", text, 8}});
  std::vector<ZipReader::Entry> got = ZipReader::entries(bytesOf(archive), all);
  EXPECT_THAT(got, ElementsAre(ZipReader::Entry{"b.bin", vec(binary)},
                               ZipReader::Entry{"a.txt", vec(text)}));
}

TEST(ZipReaderTest, PredicateSelectsEntriesAndOthersAreNotRead) {
  std::string archive = makeZip({{"[Content_Types].xml", "<Types/>"},
                                 {"word/document.xml", "<w:document>Hi</w:document>"},
                                 {"word/styles.xml", "<styles/>"}});
  auto got = ZipReader::entries(bytesOf(archive),
                                [](std::string_view name) { return name == "word/document.xml"; });
  EXPECT_THAT(
      got, ElementsAre(ZipReader::Entry{"word/document.xml", vec("<w:document>Hi</w:document>")}));
}

// The end record is searched from 22 bytes before the end back to 65,558 bytes before it.
TEST(ZipReaderTest, EndRecordIsFoundOnlyWithinTheSearchRange) {
  std::string archive = makeZip({{"a", "alpha"}});
  struct Case {
    std::string tail;
    bool found;
  };
  const Case cases[] = {
      {"", true},
      {std::string(65'536, 'z'), true},   // record starts exactly 65,558 bytes before the end
      {std::string(65'537, 'z'), false},  // one byte further
  };
  for (const Case& c : cases) {
    EXPECT_EQ(namesIn(archive + c.tail).size(), c.found ? 1u : 0u) << c.tail.size();
  }
  EXPECT_THAT(namesIn(makeZip({{"a", "alpha"}}, {.comment = std::string(100, 'c')})),
              ElementsAre("a"));
  EXPECT_TRUE(namesIn(std::string(21, '\0')).empty());
  EXPECT_TRUE(namesIn(std::string("PK\x05\x06", 4)).empty());
  EXPECT_TRUE(namesIn("").empty());
}

TEST(ZipReaderTest, EntriesAboveTheSizeLimitAreSkipped) {
  std::string limit(ZipReader::maxEntryBytes, 'a');
  std::string archive = makeZip({{"over", limit + "a", 8}, {"at", limit, 8}, {"stored", limit, 0}});
  std::vector<ZipReader::Entry> got = ZipReader::entries(bytesOf(archive), all);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[0].name, "at");
  EXPECT_EQ(got[0].data, vec(limit));
  EXPECT_EQ(got[1].name, "stored");
  EXPECT_EQ(got[1].data.size(), ZipReader::maxEntryBytes);
}

TEST(ZipReaderTest, DamagedOrUnsupportedEntriesAreSkippedAndTheWalkGoesOn) {
  std::string archive = makeZip({
      {"method12", "BZh9 not really", 12},
      {"method14", "LZMA not really", 14},
      {"declared-empty", "text", 8, 0},
      {"bad-local", "text", 8, std::nullopt, true},
      {"last", "survives"},
  });
  EXPECT_THAT(namesIn(archive), ElementsAre("last"));

  // Block type 3 is invalid in DEFLATE.
  std::string broken = makeZip({{"bad", "\x07\xFF\xFF", 9}, {"last", "survives"}});
  broken[8] = 8;                               // local method
  broken[broken.find("PK\x01\x02") + 10] = 8;  // central method
  EXPECT_THAT(namesIn(broken), ElementsAre("last"));
}

TEST(ZipReaderTest, DeclaredSizeBoundsTheInflatedOutput) {
  std::string bomb(1 << 20, 'a');  // 1 MiB of one byte: a few hundred bytes compressed
  std::string archive = makeZip({{"bomb", bomb, 8, 1000}, {"short", "twelve bytes", 8, 4096}});
  std::vector<ZipReader::Entry> got = ZipReader::entries(bytesOf(archive), all);
  ASSERT_EQ(got.size(), 2u);
  // Cut at the declared size; the last match that did not fit whole may be left out.
  ASSERT_EQ(got[0].data.size(), 1000u);
  EXPECT_EQ(std::string(got[0].data.begin(), got[0].data.begin() + 1000 - 258),
            std::string(1000 - 258, 'a'));
  // Shorter output than declared is accepted as it is.
  EXPECT_EQ(got[1].data, vec("twelve bytes"));
}

TEST(ZipReaderTest, DirectoryDamageEndsTheWalkWithTheEntriesRead) {
  std::vector<ZipEntrySpec> three = {{"a", "1"}, {"b", "2"}, {"c", "3"}};
  EXPECT_THAT(namesIn(makeZip(three, {.claimedEntryCount = 10})), ElementsAre("a", "b", "c"));
  EXPECT_TRUE(namesIn(makeZip(three, {.claimedEntryCount = 0})).empty());

  std::string archive = makeZip(three);
  size_t second = archive.find("PK\x01\x02", archive.find("PK\x01\x02") + 1);
  std::string badSignature = archive;
  badSignature[second] = 'X';
  EXPECT_THAT(namesIn(badSignature), ElementsAre("a"));

  std::string longName = archive;
  longName[second + 28] = '\xFF';  // the name would run past the end
  longName[second + 29] = '\xFF';
  EXPECT_THAT(namesIn(longName), ElementsAre("a"));

  std::string farDirectory = archive;
  size_t end = farDirectory.rfind("PK\x05\x06");
  farDirectory.replace(end + 16, 4, "\xF0\xFF\xFF\xFF");
  EXPECT_TRUE(namesIn(farDirectory).empty());

  std::string dataPastEnd = archive;
  dataPastEnd.replace(second + 20, 4, "\x00\x00\x01\x00", 4);  // compressed size 65,536
  EXPECT_THAT(namesIn(dataPastEnd), ElementsAre("a", "c"));
}

TEST(ZipReaderTest, NamesInOtherEncodingsGetReplacementCharacters) {
  EXPECT_THAT(namesIn(makeZip({{"caf\xE9.txt", "latin-1 name"}})),
              ElementsAre("caf\xEF\xBF\xBD.txt"));
}

// Every truncation and every single-byte change must be survived (the sanitizers watch); what
// comes back is never more than the archive holds.
TEST(ZipReaderTest, TruncatedAndCorruptedArchivesAreSurvived) {
  std::string archive = makeZip(
      {{"a.xml", std::string(300, 'a')}, {"b", "stored", 0}, {"c", "xyz"}}, {.comment = "hi"});
  for (size_t length = 0; length < archive.size(); ++length) {
    EXPECT_LE(namesIn(archive.substr(0, length)).size(), 3u);
  }
  for (size_t at = 0; at < archive.size(); ++at) {
    for (char value : {'\0', '\xFF', '\x80'}) {
      std::string damaged = archive;
      damaged[at] = value;
      for (ZipReader::Entry& e : ZipReader::entries(bytesOf(damaged), all)) {
        EXPECT_LE(e.data.size(), 300u);
      }
    }
  }
}

TEST(ZipReaderTest, ReadsFromAFileAndGivesNothingForWhatIsNotOne) {
  testing::TempTree tree;
  testing::writeFile(tree / "doc.zip", makeZip({{"x", "from disk"}}));
  EXPECT_THAT(ZipReader::entries(tree / "doc.zip", all),
              ElementsAre(ZipReader::Entry{"x", vec("from disk")}));
  EXPECT_TRUE(ZipReader::entries(tree / "missing.zip", all).empty());
  EXPECT_TRUE(ZipReader::entries(tree.root(), all).empty());
  testing::writeFile(tree / "empty.zip", "");
  EXPECT_TRUE(ZipReader::entries(tree / "empty.zip", all).empty());
}

}  // namespace
}  // namespace tarvolin
