#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "support/TempTree.h"
#include "tarvolin/content/ContentIndex.h"
#include "tarvolin/content/ContentTrigrams.h"

namespace tarvolin {
namespace {

using Document = ContentIndex::Document;
using testing::readFile;
using testing::TempTree;
using testing::writeFile;

std::vector<uint8_t> bytesOf(std::string_view text) { return {text.begin(), text.end()}; }

std::span<const uint8_t> spanOf(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// The same table and blob without a side file: every search is the full scan.
ContentIndex fullScanOf(const ContentIndex& index) {
  return ContentIndex(index.documents(), {index.blob().begin(), index.blob().end()});
}

// The side file of the content.bin at `path`, opened with that file's own identity.
std::optional<ContentTrigrams> trigramsBeside(const std::filesystem::path& path) {
  const std::string file = readFile(path);
  uint32_t tableBytes;
  std::memcpy(&tableBytes, file.data(), 4);
  auto identity = ContentTrigrams::identityOf(
      file.size(), spanOf(std::string_view(file).substr(0, 4 + tableBytes)),
      static_cast<uint32_t>(ContentIndex::read(path).documents().size()));
  return ContentTrigrams::open(ContentIndex::trigramPath(path), identity);
}

// Every needle at every limit gives what the full scan gives.
void expectSameAsFullScan(const ContentIndex& index, const std::vector<std::string>& needles,
                          const std::string& label) {
  const ContentIndex plain = fullScanOf(index);
  for (const std::string& needle : needles) {
    for (int64_t limit : {1, 2, 1000}) {
      EXPECT_EQ(index.searchAll(needle, limit), plain.searchAll(needle, limit))
          << label << ": \"" << needle << "\" limit " << limit;
    }
  }
}

// Documents stored as the builder stores them (lower case), plus ranges a hostile file may hold:
// one clamped at the blob's end, one negative, one overlapping two neighbours.
ContentIndex craftedIndex() {
  const std::string texts[] = {
      "alpha beta\ngamma abc",                  // /a ends in "abc"
      "def delta\nna\xC3\xAFve caf\xC3\xA9\n",  // /b starts with "def"
      "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E text\n\xC3\xA9"
      "cole",                  // 日本語 text / école
      "beta beta beta\nzeta",  // /d
      "tail words quux",       // /clamped reaches past the end
  };
  std::string blob;
  std::vector<Document> documents;
  const char* paths[] = {"/a", "/b", "/c", "/d", "/clamped"};
  for (size_t i = 0; i < 5; ++i) {
    documents.push_back(
        {paths[i], 1, static_cast<int64_t>(blob.size()), static_cast<int64_t>(texts[i].size())});
    blob += texts[i];
  }
  documents.back().length = 1 << 20;
  documents.push_back({"/negative", 1, -1, 10});
  // "abc" + "def": the only document in which "cde" lies.
  documents.push_back({"/overlap", 1, documents[0].length - 3, 6});
  return ContentIndex(documents, bytesOf(blob));
}

const std::vector<std::string> kCraftedNeedles = {
    "a",
    "ab",
    "\xC3\xA9",  // shorter than 3 bytes: full scan
    "cde",
    "abcdef",  // only across /a and /b, inside /overlap
    "na\xC3\xAFve",
    "NA\xC3\x8FVE",
    "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E",
    "\xE6\x9C\xAC\xE8\xAA\x9E",
    "\xC3\x89"
    "COLE",  // multi-byte, written in capitals too
    "beta",
    "eta",
    "quux",
    "zzz",
    "\nzeta",
    "alpha beta\ngamma abc"};

TEST(ContentTrigramsTest, FilteredSearchEqualsFullScan) {
  TempTree tree;
  const std::filesystem::path path = tree / "content.bin";
  craftedIndex().write(path);
  ContentIndex index = ContentIndex::read(path);
  ASSERT_TRUE(index.hasTrigrams());
  EXPECT_EQ(index.documents(), craftedIndex().documents());
  expectSameAsFullScan(index, kCraftedNeedles, "crafted");

  // The filter really narrows: the sequences of a needle spanning /a and /b lie only in
  // /overlap, and a multi-byte needle keeps to the one document holding it.
  std::optional<ContentTrigrams> trigrams = trigramsBeside(path);
  ASSERT_TRUE(trigrams);
  EXPECT_EQ(trigrams->candidates(spanOf("cde")), (std::vector<uint32_t>{6}));
  EXPECT_EQ(trigrams->candidates(spanOf("\xE6\x9C\xAC\xE8\xAA\x9E")), (std::vector<uint32_t>{2}));
  EXPECT_EQ(trigrams->candidates(spanOf("quux")), (std::vector<uint32_t>{4}));
  EXPECT_EQ(trigrams->candidates(spanOf("zzz")), (std::vector<uint32_t>{}));
  EXPECT_EQ(trigrams->candidates(spanOf("ab")), std::nullopt);
}

TEST(ContentTrigramsTest, RandomIndexesAgreeWithFullScan) {
  // Few distinct letters, line feeds and multi-byte characters: needles cut anywhere in the blob
  // often span documents or split a character.
  const std::string pieces[] = {"a", "b", "c", "ab", "\n", " ", "\xC3\xA9", "\xE8\xAA\x9E"};
  std::mt19937 random(42);
  for (int round = 0; round < 6; ++round) {
    ContentIndex built;
    const int documents = 10 + round * 15;
    for (int d = 0; d < documents; ++d) {
      std::string text;
      const int length = static_cast<int>(random() % 40);
      for (int i = 0; i < length; ++i) text += pieces[random() % std::size(pieces)];
      built.upsert("/doc" + std::to_string(d), 0, text);
    }
    std::string blob(built.blob().begin(), built.blob().end());
    std::vector<std::string> needles;
    for (int n = 0; n < 40 && !blob.empty(); ++n) {
      size_t at = random() % blob.size();
      needles.push_back(blob.substr(at, 1 + random() % 7));
    }
    TempTree tree;
    built.write(tree / "content.bin");
    ContentIndex index = ContentIndex::read(tree / "content.bin");
    ASSERT_TRUE(index.hasTrigrams());
    expectSameAsFullScan(index, needles, "round " + std::to_string(round));
  }
}

TEST(ContentTrigramsTest, LargeIndexSummarisedInParallelAgreesWithFullScan) {
  // Over 8 MiB of text, so that both the summary and the search are split over processors.
  std::mt19937 random(7);
  const char* words[] = {"lorem", "ipsum", "dolor", "sit", "amet", "\xC3\xA9t\xC3\xA9", "\n"};
  ContentIndex built;
  for (int d = 0; d < 300; ++d) {
    std::string text;
    while (text.size() < 30000) {
      text += words[random() % std::size(words)];
      text += ' ';
    }
    if (d % 37 == 5) text += "rare needle " + std::to_string(d % 2);
    built.upsert("/doc" + std::to_string(d), 0, text);
  }
  TempTree tree;
  built.write(tree / "content.bin");
  ContentIndex index = ContentIndex::read(tree / "content.bin");
  ASSERT_TRUE(index.hasTrigrams());
  expectSameAsFullScan(index, {"rare needle 1", "rare needle", "sit amet", "absent", "m\n"},
                       "large");
  EXPECT_EQ(index.search("rare needle", 1000).size(), 8u);
}

TEST(ContentTrigramsTest, SideFileThatDoesNotFitIsIgnored) {
  struct Case {
    const char* name;
    std::function<void(const std::filesystem::path& side, TempTree& tree)> spoil;
    bool stillUsed;  // the header fits, but a list is malformed: queries fall back one by one
  };
  auto rewrite = [](const std::filesystem::path& side, const std::function<void(std::string&)>& f) {
    std::string bytes = readFile(side);
    f(bytes);
    writeFile(side, bytes);
  };
  const Case cases[] = {
      {"missing", [](auto& side, auto&) { std::filesystem::remove(side); }, false},
      {"empty", [](auto& side, auto&) { writeFile(side, ""); }, false},
      {"one byte short",
       [&](auto& side, auto&) { rewrite(side, [](std::string& b) { b.pop_back(); }); }, false},
      {"one byte more",
       [&](auto& side, auto&) { rewrite(side, [](std::string& b) { b.push_back(0); }); }, false},
      {"other magic", [&](auto& side, auto&) { rewrite(side, [](std::string& b) { b[0] ^= 1; }); },
       false},
      {"other version", [&](auto& side, auto&) { rewrite(side, [](std::string& b) { b[4] = 2; }); },
       false},
      {"other table hash",
       [&](auto& side, auto&) { rewrite(side, [](std::string& b) { b[16] ^= 0x40; }); }, false},
      {"of another content.bin",
       [](auto& side, TempTree& tree) {
         ContentIndex other = craftedIndex();
         other.upsert("/e", 2, "one more document");
         other.write(tree / "other.bin");
         std::filesystem::copy_file(tree / "other.tri", side,
                                    std::filesystem::copy_options::overwrite_existing);
       },
       false},
      {"lists of endless varints",
       [&](auto& side, auto&) {
         rewrite(side, [](std::string& b) {
           uint32_t keys;
           std::memcpy(&keys, b.data() + 28, 4);
           for (size_t i = ContentTrigrams::headerBytes + 12 * size_t{keys} + 8; i < b.size(); ++i)
             b[i] = static_cast<char>(0xFF);
         });
       },
       true},
      {"lists of ordinals past the table",
       [&](auto& side, auto&) {
         rewrite(side, [](std::string& b) {
           uint32_t keys;
           std::memcpy(&keys, b.data() + 28, 4);
           for (size_t i = ContentTrigrams::headerBytes + 12 * size_t{keys} + 8; i < b.size(); ++i)
             b[i] = 0x7F;
         });
       },
       true},
  };
  for (const Case& c : cases) {
    TempTree tree;
    const std::filesystem::path path = tree / "content.bin";
    craftedIndex().write(path);
    c.spoil(ContentIndex::trigramPath(path), tree);
    ContentIndex index = ContentIndex::read(path);
    EXPECT_EQ(index.hasTrigrams(), c.stillUsed) << c.name;
    EXPECT_EQ(index.documents(), craftedIndex().documents()) << c.name;
    expectSameAsFullScan(index, kCraftedNeedles, c.name);
  }
}

TEST(ContentTrigramsTest, WritingReplacesTheSideFileAndChangesStopUsingIt) {
  TempTree tree;
  const std::filesystem::path path = tree / "content.bin";
  ContentIndex first;
  first.upsert("/one", 1, "the first needle");
  first.write(path);
  ContentIndex second;
  second.upsert("/two", 1, "nothing here");
  second.upsert("/three", 1, "the second needle");
  second.write(path);
  ContentIndex index = ContentIndex::read(path);
  ASSERT_TRUE(index.hasTrigrams());
  EXPECT_EQ(index.search("second needle", 10),
            (std::vector<ContentIndex::Hit>{{"/three", 1, "the second needle"}}));

  // Removing shifts every later ordinal; an added document is in no list.
  EXPECT_TRUE(index.remove("/two"));
  EXPECT_FALSE(index.hasTrigrams());
  EXPECT_EQ(index.search("second needle", 10).size(), 1u);
  ContentIndex added = ContentIndex::read(path);
  added.upsert("/four", 1, "A Fresh Needle");
  EXPECT_FALSE(added.hasTrigrams());
  EXPECT_EQ(added.search("fresh needle", 10).size(), 1u);
}

TEST(ContentTrigramsTest, SidePathReplacesTheExtension) {
  EXPECT_EQ(ContentIndex::trigramPath("/x/content.bin"), "/x/content.tri");
  EXPECT_EQ(ContentIndex::trigramPath("/x/content"), "/x/content.tri");
  EXPECT_EQ(ContentIndex::trigramPath("/x/content.tri"), "/x/content.tri.tri");
}

}  // namespace
}  // namespace tarvolin
