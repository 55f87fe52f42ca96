// The matcher: every strategy agrees with the general evaluation on a large index, every scan
// kernel agrees with the scalar reference, and the single-term rules hold on small cases.

#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <random>
#include <set>

#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/platform/Regex.h"
#include "tarvolin/query/ExtensionIndex.h"
#include "tarvolin/query/FuzzyMatcher.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/QueryParser.h"
#include "tarvolin/query/detail/NameScan.h"

namespace tarvolin {
namespace {

// A deterministic tree of about 25000 records: folders with words a user would search for,
// mixed case, extensions, hidden and deleted entries, application bundles, invalid UTF-8,
// 255-byte names, and attributes on most records.
IndexBuilder largeTree(uint32_t count = 25000, bool withDeleted = true) {
  static const char* words[] = {"report", "Final", "draft", "IMG_", "photo", "Playground", "notes",
                                "colour", "color", "node_modules", "src", "build", "x_ab", "AB",
                                "readme", "Résumé", "data", "Archive",
                                // Spelled with U+212A (Kelvin sign) and U+017F (long s), which
                                // caseless expressions match as "k" and "s".
                                "\xE2\x84\xAA"
                                "elvin",
                                "Kelvin", "\xC5\xBFources", "sources"};
  static const char* extensions[] = {".md",  ".txt", ".TXT", ".jpg",   ".swift",
                                     ".bin", "",     ".",    ".tar.gz"};
  std::mt19937 random(11);
  IndexBuilder builder;
  std::vector<uint32_t> folders{builder.addEntry(std::string_view(""), FileRecord::rootParentID,
                                                 RecordFlags::isDirectory, 0)};
  int64_t now = static_cast<int64_t>(std::time(nullptr));
  while (builder.recordCount() < count) {
    uint32_t parent = folders[random() % folders.size()];
    std::string name;
    int parts = 1 + static_cast<int>(random() % 3);
    for (int p = 0; p < parts; ++p) {
      if (p > 0) name += " -._"[random() % 4];
      name += words[random() % std::size(words)];
      if (random() % 3 == 0) name += std::to_string(random() % 1000);
    }
    uint32_t kind = random() % 100;
    RecordFlags flags;
    if (kind < 12) {
      flags.insert(RecordFlags::isDirectory);
      if (kind < 2) {
        name += ".app";
        flags.insert(RecordFlags::isApp);
      }
    } else {
      name += extensions[random() % std::size(extensions)];
    }
    if (random() % 20 == 0) name = "." + name;
    if (random() % 250 == 0) name += "\xFF\xFE";
    if (random() % 500 == 0) name = std::string(300, 'r') + name;
    if (!name.empty() && name[0] == '.') flags.insert(RecordFlags::isHidden);
    if (random() % 100 == 0 && withDeleted) flags.insert(RecordFlags::deleted);
    uint32_t id = builder.addEntry(std::string_view(name), parent, flags, 0);
    if (random() % 10 != 0) {
      int64_t age = static_cast<int64_t>(random() % (400 * 86400));
      builder.setAttributes(id, random() % 50'000'000, static_cast<uint32_t>(now - age));
    }
    if (flags.contains(RecordFlags::isDirectory)) folders.push_back(id);
  }
  return builder;
}

class LargeIndexTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    tree_ = new testing::TempTree();
    store_ = testing::writeAndLoad(largeTree(), *tree_ / "index.bin");
  }
  static void TearDownTestSuite() {
    store_.reset();
    delete tree_;
  }
  static std::vector<uint32_t> allIDs() {
    std::vector<uint32_t> ids(store_->count());
    for (uint32_t i = 0; i < ids.size(); ++i) ids[i] = i;
    return ids;
  }
  static inline testing::TempTree* tree_ = nullptr;
  static inline std::shared_ptr<const IndexStore> store_;
};

std::vector<uint32_t> idsOf(const std::vector<Match>& matches) {
  std::vector<uint32_t> ids;
  for (const Match& m : matches) ids.push_back(m.id);
  return ids;
}

TEST_F(LargeIndexTest, EveryStrategyAgreesWithTheGeneralEvaluation) {
  ASSERT_GE(store_->count(), Matcher::largeIndexThreshold);
  struct Case {
    const char* query;
    bool sameQuality;  // the multi-word scan reports its driver word's quality
  };
  const Case cases[] = {
      {"report", true},
      {"RE", true},
      {"a", true},
      {"ab", true},
      {"résumé", true},
      {"zzzzqqq", true},
      {"report final", false},
      {"final report draft", false},
      {"img_ photo", false},
      {"ext:md", true},
      {"ext:txt,swift", true},
      {"!ext:md", true},
      {"size:>1mb", true},
      {"!size:>1mb", true},
      {"size:<10kb report", true},
      {"dm:today", true},
      {"dm:<30d", true},
      {"!dm:<30d", true},
      {"folder:", true},
      {"file: report", true},
      {"app:", true},
      {"folder:src", true},
      {"\"final report\"", true},
      {"!report", true},
      {"!report !draft photo", true},
      {"path:playground", true},
      {"path:src/report", true},
      {"path:build report", true},
      {"/^IMG_\\d+/", true},
      {"/colou?r/", true},
      {"/(a+)+$/", true},
      {"/[/", true},
      {"report | draft", true},
      {"ext:md | ext:txt", true},
      {"report ext:md | photo size:>1kb", true},
      {"/kelvin/", true},
      {"/sources/", true},
      {"/^\xC5\xBF/", true},
      {"/kelvin/ ext:md", true},
      {"/sources/ | draft", true},
      {"!ext:md !report", true},
      {"!/colou?r/", true},
      {"!/kelvin/ !\"final report\"", true},
      {"!ext:txt,swift", true},
      {"!size:>1mb !report", true},
      {"ext:md | /kelvin/", true},
      {"report | ext:md | photo", true},
      {"ext:md | size:>1kb", true},
      // With extension groups: a group alone, with other terms, under a not, in or-groups, and
      // extensions without a group (rare or absent), which fall back to the scans.
      {"ext:MD", true},
      {"ext:md report", true},
      {"report ext:txt,swift size:>1kb", true},
      {"ext:md ext:txt", true},
      {"ext:txt ext:txt,md", true},
      {"ext:md !ext:txt", true},
      {"ext:md !report", true},
      {"ext:zzz", true},
      {"ext:md,zzz", true},
      {"ext:,", true},
      {"ext:gz", true},
      {"ext:app folder:", true},
      {"ext:txt,swift | ext:md report", true},
      {"!ext:txt,swift !ext:zzz", true},
      {"ext:md,final7,zzz", true},
      {"ext:txt,md,,MD", true},
      {"!ext:md,final7 !report", true},
      {"ext:final7 | ext:md", true},
  };
  // Candidates out of ID order always take the general evaluation (a large pool in order may
  // take the word scan); its matches come in candidate order.
  std::vector<uint32_t> all = allIDs();
  std::reverse(all.begin(), all.end());
  auto extensions =
      std::make_shared<const ExtensionIndex>(*ExtensionIndex::build(*store_, [] { return false; }));
  for (const Case& c : cases) {
    Query query = QueryParser::parse(c.query);
    Matcher general(store_);
    std::vector<Match> reference = general.match(query, std::span<const uint32_t>(all));
    std::reverse(reference.begin(), reference.end());
    for (bool grouped : {false, true}) {
      Matcher strategies(store_);
      if (grouped) strategies.setExtensions(extensions);
      std::vector<Match> fast = strategies.match(query);
      if (c.sameQuality) {
        EXPECT_EQ(fast, reference) << c.query << (grouped ? " (extension groups)" : "");
      } else {
        EXPECT_EQ(idsOf(fast), idsOf(reference)) << c.query;
      }
    }
  }
}

// The not-only queries pass over every record; in a store without deleted records they skip
// reading the records' flags, and still find what the general evaluation finds.
TEST_F(LargeIndexTest, NegationsAgreeWithOrWithoutDeletedRecords) {
  auto live = testing::writeAndLoad(largeTree(25000, false), *tree_ / "live.bin");
  ASSERT_TRUE(store_->hasDeletedRecords());
  ASSERT_FALSE(live->hasDeletedRecords());
  for (const auto& store : {store_, live}) {
    std::vector<uint32_t> all(store->count());
    for (uint32_t i = 0; i < all.size(); ++i) all[i] = i;
    std::reverse(all.begin(), all.end());
    for (const char* text : {"!report", "!ext:md !report", "!/colou?r/", "!a"}) {
      Query query = QueryParser::parse(text);
      std::vector<Match> reference = Matcher(store).match(query, std::span<const uint32_t>(all));
      std::reverse(reference.begin(), reference.end());
      EXPECT_EQ(Matcher(store).match(query), reference) << text;
    }
  }
}

// Each group holds exactly the live records of its extension, in any case spelling; an
// extension of fewer records than the minimum has none; a cancelled build gives nothing.
TEST_F(LargeIndexTest, ExtensionGroupsHoldEveryLiveRecordOfTheirExtension) {
  std::optional<ExtensionIndex> extensions = ExtensionIndex::build(*store_, [] { return false; });
  ASSERT_TRUE(extensions);
  Matcher matcher(store_);
  size_t grouped = 0;
  for (const char* extension : {"md", "txt", "swift", "gz", "app", "jpg", "final", "zzz", "ab"}) {
    Term term = Term::ext(extension);
    std::vector<uint32_t> live;
    for (uint32_t id = 0; id < store_->count(); ++id) {
      if (!(*store_)[id].flags.contains(RecordFlags::deleted) && matcher.matches(term, id)) {
        live.push_back(id);
      }
    }
    std::optional<std::span<const uint32_t>> group = extensions->records(extension);
    if (live.size() >= ExtensionIndex::minimumGroup) {
      ASSERT_TRUE(group) << extension;
      EXPECT_EQ(std::vector<uint32_t>(group->begin(), group->end()), live) << extension;
      ++grouped;
    } else {
      EXPECT_FALSE(group) << extension << " has " << live.size();
    }
  }
  EXPECT_GE(grouped, 5u);

  // An extension too rare for a group is found by the scan, alone and beside a group.
  std::map<std::string, size_t> counts;
  for (uint32_t id = 0; id < store_->count(); ++id) {
    std::string_view name = store_->nameBytes(id);
    size_t dot = name.rfind('.');
    if (dot != std::string_view::npos && dot > 0 && dot + 1 < name.size()) {
      ++counts[detail::lowerAscii(name.substr(dot + 1))];
    }
  }
  std::string rare;
  for (const auto& [extension, count] : counts) {
    if (count < ExtensionIndex::minimumGroup && (rare.empty() || count > counts[rare])) {
      rare = extension;
    }
  }
  ASSERT_GT(counts[rare], 1u);
  auto shared = std::make_shared<const ExtensionIndex>(*extensions);
  for (std::string text : {"ext:" + rare, "ext:md," + rare, "!ext:" + rare + ",txt"}) {
    Query query = QueryParser::parse(text);
    Matcher plain(store_);
    Matcher withGroups(store_);
    withGroups.setExtensions(shared);
    EXPECT_EQ(withGroups.match(query), plain.match(query)) << text;
  }
  EXPECT_FALSE(ExtensionIndex::build(*store_, [] { return true; }));
  // Groups of another store would name records it does not have.
  auto small = testing::writeAndLoad(largeTree(30), *tree_ / "small.bin");
  Matcher other(small);
  EXPECT_THROW(other.setExtensions(std::make_shared<const ExtensionIndex>(std::move(*extensions))),
               std::invalid_argument);
}

// A typing session narrows a word's matches to the previous word's: over a large pool the
// matcher scans the whole index and keeps the pool's IDs. Pools small and large, with deleted
// records, IDs past the index and repeats, give what the general evaluation gives.
TEST_F(LargeIndexTest, AWordOverALargePoolFindsWhatTheEvaluationFinds) {
  struct Case {
    const char* previous;  // the pool: this word's matches; every ID ("*"); every even one ("2")
    const char* word;
  };
  const Case cases[] = {{"r", "re"}, {"re", "rep"}, {"a", "ab"}, {"*", "report"},   {"2", "report"},
                        {"2", "a"},  {"e", "zzzq"}, {"o", "O"},  {"repo", "report"}};
  for (const Case& c : cases) {
    std::vector<uint32_t> pool;
    if (c.previous == std::string("*") || c.previous == std::string("2")) {
      for (uint32_t id : allIDs()) {
        if (c.previous[0] == '*' || id % 2 == 0) pool.push_back(id);
      }
    } else {
      pool = idsOf(Matcher(store_).match(QueryParser::parse(c.previous)));
    }
    pool.push_back(store_->count() + 5);  // stays sorted: past the index
    if (pool.size() > 3) pool.insert(pool.begin() + 2, pool[2]);
    Query query = QueryParser::parse(c.word);
    std::vector<Match> pooled = Matcher(store_).match(query, std::span<const uint32_t>(pool));
    std::vector<uint32_t> reversed(pool.rbegin(), pool.rend());
    std::vector<Match> reference =
        Matcher(store_).match(query, std::span<const uint32_t>(reversed));
    std::reverse(reference.begin(), reference.end());
    // The evaluation repeats a repeated candidate; the kept scan lists each record once.
    reference.erase(std::unique(reference.begin(), reference.end()), reference.end());
    EXPECT_EQ(pooled, reference) << c.previous << " -> " << c.word;

    EXPECT_FALSE(pooled.empty() && *c.word != 'z') << c.word;
  }
}

TEST_F(LargeIndexTest, RepeatedTermsFindWhatTheQueryWithoutThemFinds) {
  const std::pair<const char*, const char*> cases[] = {
      {"report report", "report"},
      {"report final report", "report final"},
      {"ext:md report ext:md", "ext:md report"},
      {"report | report", "report"},
      {"ext:md | photo | ext:md", "ext:md | photo"},
      {"!draft report !draft", "!draft report"},
  };
  for (const auto& [repeated, plain] : cases) {
    Matcher matcher(store_);
    EXPECT_EQ(matcher.match(QueryParser::parse(repeated)), matcher.match(QueryParser::parse(plain)))
        << repeated;
  }
}

TEST_F(LargeIndexTest, QueriesOfTooManyDifferentTermsAreRefused) {
  auto words = [](size_t count, const char* prefix) {
    std::string text;
    for (size_t i = 0; i < count; ++i) text += prefix + std::to_string(i) + " ";
    return text;
  };
  Matcher matcher(store_);
  EXPECT_NO_THROW(matcher.match(QueryParser::parse(words(Matcher::maxTerms, "w"))));
  EXPECT_THROW(matcher.match(QueryParser::parse(words(Matcher::maxTerms + 1, "w"))),
               std::length_error);
  EXPECT_THROW(matcher.match(QueryParser::parse(words(Matcher::maxTerms + 1, "w | "))),
               std::length_error);
}

// Caseless Unicode matching lets "k" stand for U+212A and "s" for U+017F: an expression finds
// such names through every strategy, not only the ones that run it on every name.
TEST_F(LargeIndexTest, ExpressionsFindNamesSpelledWithCharactersThatFoldOntoAscii) {
  auto trigrams = std::make_shared<const TrigramIndex>(TrigramIndex::build(*store_, nullptr));
  std::vector<uint32_t> all = allIDs();
  struct Case {
    const char* pattern;
    const char* spelling;  // a character some expected name must hold
  };
  for (const Case& c : {Case{"kelvin", "\xE2\x84\xAA"}, Case{"sources", "\xC5\xBF"},
                        Case{"^kel.*n", "\xE2\x84\xAA"}, Case{"\\.?sources\\d*", "\xC5\xBF"}}) {
    // What the expression itself says, name by name.
    std::optional<platform::Regex> regex = platform::Regex::compile(c.pattern);
    ASSERT_TRUE(regex.has_value()) << c.pattern;
    std::vector<uint32_t> expected;
    bool spelled = false;
    for (uint32_t id = 0; id < store_->count(); ++id) {
      if ((*store_)[id].flags.contains(RecordFlags::deleted)) continue;
      if (!regex->search(store_->name(id))) continue;
      expected.push_back(id);
      spelled = spelled || store_->name(id).find(c.spelling) != std::string::npos;
    }
    ASSERT_TRUE(spelled) << c.pattern << ": the tree lacks the test's spelling";

    for (std::string text :
         {std::string("/") + c.pattern + "/", std::string("/") + c.pattern + "/ | zzzzqqq"}) {
      Query query = QueryParser::parse(text);
      Matcher scanning(store_);
      Matcher narrowed(store_);
      narrowed.setTrigrams(trigrams);
      Matcher general(store_);
      EXPECT_EQ(idsOf(scanning.match(query)), expected) << text;
      EXPECT_EQ(idsOf(narrowed.match(query)), expected) << text;
      EXPECT_EQ(idsOf(general.match(query, std::span<const uint32_t>(all))), expected) << text;
    }
  }
}

// An expression's run keeps "k" and "s" whole ("kelvin", ".json"), and names that spell those
// letters as U+212A or U+017F (before, inside or after the run, or beside the run spelled in
// ASCII) are still found through every strategy, each once, and names that hold such a
// character but do not match are not.
TEST(PartnerSpellingTest, WholeRunsStillFindNamesSpelledWithPartners) {
  const std::string K = "\xE2\x84\xAA";  // Kelvin sign, matched as "k"
  const std::string S = "\xC5\xBF";      // long s, matched as "s"
  const std::vector<std::string> spelled = {
      K + "elvin",
      "KELVIN",
      "x" + K + "ELVIN.txt",
      K + "-kelvin",
      K + "elvi",
      "elvin",
      "a.j" + S + "on",
      "b.JSON",
      S + ".json",
      "c.j" + S + "on.bak",
      "j" + S + "on",
      "ma" + K + "efile",
      "MA" + K + "EFILE" + S,
      "Makefile",
      S + S + S,
      "s" + S + "s",
      "SSS",
      "ss" + S,
      "s" + S,
      S + K,
  };
  const char* fillers[] = {"config.json", "Makefile.am", "notes", "lib", "sss_test", "kelvin.c"};
  IndexBuilder builder;
  uint32_t top =
      builder.addEntry(std::string_view(""), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  size_t next = 0;
  for (uint32_t i = 0; builder.recordCount() < 40000; ++i) {
    std::string name;
    if (i % 1900 == 1000 && next < spelled.size()) {
      name = spelled[next++];
    } else if (i % 1999 == 0) {
      name = fillers[(i / 1999) % std::size(fillers)];
    } else {
      name = "file" + std::to_string(i) + ".dat";
    }
    builder.addEntry(std::string_view(name), top, RecordFlags(), 0);
  }
  ASSERT_EQ(next, spelled.size());
  testing::TempTree tree;
  std::shared_ptr<const IndexStore> store = testing::writeAndLoad(builder, tree / "index.bin");
  auto trigrams = std::make_shared<const TrigramIndex>(TrigramIndex::build(*store, nullptr));
  std::vector<uint32_t> all(store->count());
  for (uint32_t i = 0; i < all.size(); ++i) all[i] = i;

  for (const char* pattern : {"kelvin", ".json$", "\\.json$", "makefile", "sss", "^kel"}) {
    std::optional<platform::Regex> regex = platform::Regex::compile(pattern);
    ASSERT_TRUE(regex.has_value()) << pattern;
    std::vector<uint32_t> expected;
    bool partnerFound = false;
    for (uint32_t id = 0; id < store->count(); ++id) {
      if (!regex->search(store->name(id))) continue;
      expected.push_back(id);
      std::string name = store->name(id);
      partnerFound =
          partnerFound || name.find(K) != std::string::npos || name.find(S) != std::string::npos;
    }
    ASSERT_TRUE(partnerFound) << pattern << ": no name spelled with a partner matches";
    for (const std::string& text :
         {"/" + std::string(pattern) + "/",
          "/" + std::string(pattern) + "/ file:", "/" + std::string(pattern) + "/ | zzzzqqq"}) {
      Query query = QueryParser::parse(text);
      Matcher scanning(store);
      Matcher narrowed(store);
      narrowed.setTrigrams(trigrams);
      Matcher general(store);
      std::vector<Match> reference = general.match(query, std::span<const uint32_t>(all));
      EXPECT_EQ(idsOf(reference), expected) << text;
      EXPECT_EQ(scanning.match(query), reference) << text;
      EXPECT_EQ(narrowed.match(query), reference) << text;
    }
  }
}

TEST_F(LargeIndexTest, TrigramBlockScanFindsWhatTheFullScanFinds) {
  auto trigrams = std::make_shared<const TrigramIndex>(TrigramIndex::build(*store_, nullptr));
  // Several words are looked for in the blocks they all hold.
  for (const char* word : {"report", "résumé", "colour", "x_ab", "zzzz", "photo final", "ab",
                           "report final", "final report draft", "img_ photo", "ab report",
                           "zzzz report", "report zzzz", "ab x_", "kelvin sources"}) {
    Query query = QueryParser::parse(word);
    Matcher plain(store_);
    Matcher narrowed(store_);
    narrowed.setTrigrams(trigrams);
    EXPECT_EQ(narrowed.match(query), plain.match(query)) << word;
  }
}

// Two words common alone but together only in a few blocks: the block scan covers just those.
TEST(TrigramNarrowingTest, SeveralWordsAreLookedForInTheBlocksTheyAllHold) {
  IndexBuilder builder;
  uint32_t root =
      builder.addEntry(std::string_view(""), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  const uint32_t blocks = 25;
  while (builder.recordCount() < blocks * TrigramIndex::blockSize) {
    uint32_t block = builder.recordCount() / TrigramIndex::blockSize;
    std::string name = "file" + std::to_string(builder.recordCount());
    if (block < 15) name += " alpha";
    if (block >= 10) name += " beta";
    builder.addEntry(std::string_view(name), root, RecordFlags(), 0);
  }
  testing::TempTree tree;
  auto store = testing::writeAndLoad(builder, tree / "index.bin");
  auto trigrams = std::make_shared<const TrigramIndex>(TrigramIndex::build(*store, nullptr));
  std::vector<std::string_view> words{"alpha", "beta"};
  EXPECT_FALSE(trigrams->candidateBlocks("alpha"));
  EXPECT_EQ(trigrams->candidateBlocksForAll(words), (std::vector<uint32_t>{10, 11, 12, 13, 14}));
  for (const char* text : {"alpha beta", "beta alpha", "alpha be", "zzz alpha"}) {
    Query query = QueryParser::parse(text);
    Matcher plain(store);
    Matcher narrowed(store);
    narrowed.setTrigrams(trigrams);
    std::vector<Match> expected = plain.match(query);
    EXPECT_EQ(narrowed.match(query), expected) << text;
  }
  EXPECT_EQ(Matcher(store).match(QueryParser::parse("alpha beta")).size(),
            5 * TrigramIndex::blockSize);
}

TEST_F(LargeIndexTest, EveryKernelAgreesWithTheScalarScan) {
  ASSERT_TRUE(store_->namesInRecordOrder());
  uint32_t n = store_->count();
  for (std::string needle : {"r", "re", "report", "a", "x_ab", "\xff", "rrrrrrrrrrrrrrrrrrrrrrrrrr",
                             "img_1", ".", "résumé", "é", "\xfe"}) {
    std::vector<Match> reference;
    detail::scanRange(*store_, 0, n, needle, detail::ScanKernel::scalar, reference);
    for (auto kernel :
         {detail::ScanKernel::sse2, detail::ScanKernel::blobSse2, detail::ScanKernel::blobAvx2}) {
      std::vector<Match> got;
      // Odd range boundaries exercise the ends of blob windows.
      detail::scanRange(*store_, 0, 7, needle, kernel, got);
      detail::scanRange(*store_, 7, n - 3, needle, kernel, got);
      detail::scanRange(*store_, n - 3, n, needle, kernel, got);
      EXPECT_EQ(got, reference) << needle << " kernel " << static_cast<int>(kernel);
    }
  }
}

TEST_F(LargeIndexTest, FuzzyFallbackAddsAtMostFiftyNewHits) {
  Matcher matcher(store_);
  Query query = QueryParser::parse("rprt");
  std::vector<Match> exact = matcher.match(query);
  ASSERT_LT(exact.size(), Matcher::fuzzyFallbackThreshold);
  std::vector<Match> all = matcher.matchWithFuzzyFallback(query);
  ASSERT_GT(all.size(), exact.size());
  EXPECT_LE(all.size() - exact.size(), Matcher::maxFuzzyResults);
  std::set<uint32_t> seen;
  for (const Match& m : all) EXPECT_TRUE(seen.insert(m.id).second) << "repeated " << m.id;
  for (size_t i = exact.size(); i < all.size(); ++i) EXPECT_EQ(all[i].quality, MatchQuality::fuzzy);

  // The prefiltered scan scores the same names as scoring every name would.
  std::vector<std::pair<int64_t, uint32_t>> reference;
  for (uint32_t id = 0; id < store_->count(); ++id) {
    auto isExact = [&](const Match& m) { return m.id == id; };
    if (std::find_if(exact.begin(), exact.end(), isExact) != exact.end()) continue;
    if ((*store_)[id].flags.contains(RecordFlags::deleted)) continue;
    auto result = FuzzyMatcher::match("rprt", store_->nameBytes(id));
    if (result && result->score >= FuzzyMatcher::minimumScore(4))
      reference.emplace_back(result->score, id);
  }
  std::stable_sort(reference.begin(), reference.end(),
                   [](const auto& a, const auto& b) { return a.first > b.first; });
  reference.resize(std::min<size_t>(reference.size(), Matcher::maxFuzzyResults));
  std::vector<uint32_t> expected;
  for (const auto& [score, id] : reference) expected.push_back(id);
  std::vector<uint32_t> got;
  for (size_t i = exact.size(); i < all.size(); ++i) got.push_back(all[i].id);
  EXPECT_EQ(got, expected);
}

// Small indexes: the general evaluation only.
class SmallIndexTest : public ::testing::Test {
 protected:
  std::shared_ptr<const IndexStore> load(const std::vector<testing::FixtureEntry>& entries) {
    return testing::writeAndLoad(testing::buildTree(entries), tree_ / "index.bin");
  }
  std::vector<Match> run(const std::shared_ptr<const IndexStore>& store, std::string_view text,
                         bool fuzzy = false) {
    Matcher matcher(store);
    Query query = QueryParser::parse(text);
    return fuzzy ? matcher.matchWithFuzzyFallback(query) : matcher.match(query);
  }
  testing::TempTree tree_;
};

TEST_F(SmallIndexTest, FirstOccurrenceQualities) {
  auto store = load({{"/AB"}, {"/xab"}, {"/x_ab"}, {"/x.ab"}, {"/x ab"}, {"/x-ab"}, {"/abc"}});
  std::vector<Match> matches = run(store, "ab");
  std::vector<std::pair<MatchQuality, int32_t>> got;
  for (const Match& m : matches) got.emplace_back(m.quality, m.matchOffset);
  using Q = MatchQuality;
  EXPECT_EQ(got, (std::vector<std::pair<Q, int32_t>>{{Q::exact, 0},
                                                     {Q::substring, 1},
                                                     {Q::wordBoundary, 2},
                                                     {Q::wordBoundary, 2},
                                                     {Q::wordBoundary, 2},
                                                     {Q::wordBoundary, 2},
                                                     {Q::prefix, 0}}));
}

TEST_F(SmallIndexTest, FiltersAndPaths) {
  auto store = load({{"/.bashrc", 10, 1},
                     {"/archive.", 10, 1},
                     {"/a.MD", 10, 1},
                     {"/big.bin", 5'000'000, 1},
                     {"/unfilled.bin"},
                     {"/top/play/deep/x.txt", 1, 1},
                     {"/top/other.txt", 1, 1}});
  auto names = [&](const char* text) {
    std::vector<std::string> out;
    for (const Match& m : run(store, text)) out.push_back(store->name(m.id));
    return out;
  };
  EXPECT_EQ(names("ext:md"), std::vector<std::string>{"a.MD"});
  EXPECT_EQ(names("ext:bashrc"), std::vector<std::string>{});
  EXPECT_EQ(names("size:>1mb"), std::vector<std::string>{"big.bin"});
  EXPECT_EQ(names("!size:>1mb ext:bin"), std::vector<std::string>{"unfilled.bin"});
  EXPECT_EQ(names("path:play"), (std::vector<std::string>{"play", "deep", "x.txt"}));
  EXPECT_EQ(names("path:TOP/PLAY/d"), (std::vector<std::string>{"deep", "x.txt"}));
}

TEST_F(SmallIndexTest, FuzzyFallbackThresholds) {
  std::vector<testing::FixtureEntry> entries;
  for (int i = 0; i < 4; ++i) entries.push_back({"/abc" + std::to_string(i)});
  entries.push_back({"/a_b_c"});
  entries.push_back({"/xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"});
  auto store = load(entries);
  EXPECT_EQ(run(store, "abc", true).size(), 5u) << "four exact hits bring the fuzzy one";
  entries.push_back({"/abc4"});
  store = load(entries);
  EXPECT_EQ(run(store, "abc", true).size(), 5u) << "five exact hits: no fuzzy scan";
  EXPECT_EQ(run(store, std::string(33, 'x'), true).size(), 1u)
      << "a 33-byte word gets its exact hit and no fuzzy scan";
}

}  // namespace
}  // namespace tarvolin

namespace tarvolin {
namespace {

TEST_F(SmallIndexTest, HostileQueriesAnswerWithoutRunningAway) {
  std::vector<testing::FixtureEntry> entries;
  for (int i = 0; i < 50; ++i)
    entries.push_back({"/" + std::string(250, 'a') + "!" + std::to_string(i)});
  entries.push_back({"/bad\xFF\xFEname"});
  auto store = load(entries);
  std::string manyTerms;
  for (int i = 0; i < 10000; ++i) manyTerms += "a ";
  std::string hugeToken(1 << 20, 'a');
  struct Case {
    std::string query;
    size_t expected;
  };
  const Case cases[] = {
      {manyTerms, 51},           {hugeToken, 0},
      {"/(a+)+$/", 0},                        // bounded backtracking gives up: no match, no hang
      {"/(a|aa)+b/", 0},         {"/[/", 0},  // invalid: matches nothing
      {"\xFF\xFE", 0},                        // query text is decoded, so this is U+FFFD twice
      {std::string(1, '\0'), 0},              // a real NUL byte: a word no name holds
  };
  ASSERT_FALSE(QueryParser::parse(std::string(1, '\0')).isEmpty());
  for (const Case& c : cases) {
    EXPECT_EQ(run(store, c.query, true).size(), c.expected) << c.query.substr(0, 20);
  }
}

}  // namespace
}  // namespace tarvolin
