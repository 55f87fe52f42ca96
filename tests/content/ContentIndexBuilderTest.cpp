#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/TempTree.h"
#include "tarvolin/content/ContentIndexBuilder.h"

namespace tarvolin {
namespace {

namespace Builder = ContentIndexBuilder;
using Builder::BudgetCandidate;
using Builder::TextBudget;
using testing::TempTree;

// Sets a file's modification time to `seconds` since 1970 (fractions kept).
void setModified(const std::filesystem::path& path, double seconds) {
  auto since = std::chrono::nanoseconds(static_cast<int64_t>(seconds * 1e9));
  std::filesystem::last_write_time(
      path,
      std::chrono::file_clock::from_sys(std::chrono::sys_time<std::chrono::nanoseconds>(since)));
}

// An extractor that reads the file itself: the tests do not depend on the document readers.
std::optional<std::string> readWhole(const std::string& path) {
  std::string text = testing::readFile(path);
  if (text.empty()) return std::nullopt;
  return text;
}

std::vector<std::string> relative(const TempTree& tree, const std::vector<std::string>& paths) {
  std::vector<std::string> out;
  for (const std::string& path : paths) {
    out.push_back(std::filesystem::path(path).lexically_relative(tree.root()).string());
  }
  return out;
}

std::vector<std::string> pathsOf(const TempTree& tree, const ContentIndex& index) {
  std::vector<std::string> paths;
  for (const ContentIndex::Document& document : index.documents()) paths.push_back(document.path);
  return relative(tree, paths);
}

ContentIndex buildWith(const TempTree& tree, const TextBudget& budget = TextBudget::standard,
                       const ContentIndex* reusing = nullptr,
                       const Builder::Extractor& extract = readWhole) {
  return Builder::build({tree.root()}, reusing, {}, {}, budget, extract);
}

TEST(ContentIndexBuilderTest, BudgetKeepsNewestUntilTheFirstThatDoesNotFit) {
  struct Case {
    const char* name;
    std::vector<BudgetCandidate> candidates;
    TextBudget budget;
    std::unordered_set<std::string> kept;
  };
  const Case cases[] = {
      {"file count ends the walk",
       {{"c", 1, 400}, {"a", 3, 400}, {"b", 2, 400}},
       {2, 1000},
       {"a", "b"}},
      {"first overflow ends the walk, smaller older ones not tried",
       {{"a", 3, 400}, {"b", 2, 700}, {"c", 1, 100}},
       {2, 1000},
       {"a"}},
      {"equal times in path order", {{"b", 5, 10}, {"a", 5, 10}}, {1, 1000}, {"a"}},
      {"exactly full", {{"a", 2, 600}, {"b", 1, 400}}, {5, 1000}, {"a", "b"}},
      {"no files allowed", {{"a", 1, 1}}, {0, 1000}, {}},
      {"total past 64 bits", {{"a", 2, INT64_MAX}, {"b", 1, INT64_MAX}}, {5, INT64_MAX}, {"a"}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Builder::keptWithinBudget(c.candidates, c.budget), c.kept) << c.name;
  }
}

TEST(ContentIndexBuilderTest, ExtensionsCompareLowercasedAfterTheLastDot) {
  const std::pair<const char*, const char*> cases[] = {
      {"/a/b.PDF", "pdf"}, {"/a.d/b", ""},         {"/a/b.tar.Md", "md"},
      {"/a/b.", ""},       {"noslash.txt", "txt"}, {"/a/\xC3\x89.T\xC3\x89X", "t\xC3\xA9x"},
  };
  for (const auto& [path, extension] : cases) {
    EXPECT_EQ(Builder::lowercasedExtension(path), extension) << path;
  }
}

TEST(ContentIndexBuilderTest, FilesSkipsHiddenItemsAndListedFolders) {
  TempTree tree({"b.txt", "a/z.md", "a/node_modules/x.txt", "a/deep/node_modules/y.txt",
                 "Build/in.csv", "build/out.csv", ".hidden/h.txt", ".h.txt", "image.png",
                 "CAPS.PDF", "folder.pdf/inner.docx", "target", "noext", "link.txt -> b.txt",
                 "linked -> a"});
  EXPECT_EQ(relative(tree, Builder::files(tree.root())),
            (std::vector<std::string>{"Build/in.csv", "CAPS.PDF", "a/z.md", "b.txt", "folder.pdf",
                                      "folder.pdf/inner.docx", "link.txt"}));
  EXPECT_TRUE(Builder::files(tree / "missing").empty());

  int asked = 0;
  EXPECT_EQ(Builder::files(tree.root(), [&] { return ++asked > 2; }).size(), 1u);
}

TEST(ContentIndexBuilderTest, BuildAssemblesInListingOrderWhateverTheTiming) {
  TempTree tree;
  for (int i = 0; i < 40; ++i)
    tree.add("d" + std::to_string(i % 4) + "/f" + std::to_string(i) + ".txt",
             "Text " + std::to_string(i));
  std::atomic<int> calls = 0;
  auto slowly = [&](const std::string& path) {
    std::mt19937 random(static_cast<unsigned>(calls++));
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 2000));
    return readWhole(path);
  };
  ContentIndex first = buildWith(tree, TextBudget::standard, nullptr, slowly);
  ContentIndex second = buildWith(tree, TextBudget::standard, nullptr, slowly);
  EXPECT_EQ(first, second);
  std::vector<std::string> expected = relative(tree, Builder::files(tree.root()));
  EXPECT_EQ(pathsOf(tree, first), expected);
  ASSERT_EQ(first.documents().size(), 40u);
  int64_t offset = 0;
  for (const ContentIndex::Document& document : first.documents()) {
    EXPECT_EQ(document.offset, offset);
    offset += document.length;
  }
  EXPECT_EQ(offset, first.textBytes());
  EXPECT_EQ(first.deadBytes(), 0);
  EXPECT_EQ(first.search("TEXT 17", 5).size(), 1u);  // stored lower-cased
}

TEST(ContentIndexBuilderTest, TextBudgetAppliesToPlainTextOnly) {
  TempTree tree;
  for (const char* name : {"new.txt", "mid.md", "old.csv"}) tree.add(name, std::string(400, 'x'));
  setModified(tree / "new.txt", 3);
  setModified(tree / "mid.md", 2);
  setModified(tree / "old.csv", 1);
  tree.add("doc.PDF", "pdf words");
  tree.add("big.docx", "docx words");
  EXPECT_EQ(pathsOf(tree, buildWith(tree, {2, 1000})),
            (std::vector<std::string>{"big.docx", "doc.PDF", "mid.md", "new.txt"}));

  testing::writeFile(tree / "mid.md", std::string(700, 'y'));
  setModified(tree / "mid.md", 2);
  testing::writeFile(tree / "old.csv", std::string(100, 'z'));
  setModified(tree / "old.csv", 1);
  EXPECT_EQ(pathsOf(tree, buildWith(tree, {2, 1000})),
            (std::vector<std::string>{"big.docx", "doc.PDF", "new.txt"}));
  EXPECT_EQ(pathsOf(tree, buildWith(tree, {0, 0})),
            (std::vector<std::string>{"big.docx", "doc.PDF"}));
}

TEST(ContentIndexBuilderTest, EmptyOversizedAndUnreadableFilesAreLeftOut) {
  TempTree tree({"empty.pdf", "fine.txt", "broken.docx"});
  testing::writeFile(tree / "fine.txt", "fine");
  testing::writeFile(tree / "broken.docx", "cannot extract");
  tree.add("huge.pdf");
  std::filesystem::resize_file(tree / "huge.pdf", Builder::maxFileBytes + 1);
  tree.add("limit.pdf");
  std::filesystem::resize_file(tree / "limit.pdf", Builder::maxFileBytes);
  auto extract = [](const std::string& path) -> std::optional<std::string> {
    if (path.ends_with("broken.docx")) return std::nullopt;
    if (path.ends_with("limit.pdf")) return "limit";
    return readWhole(path);
  };
  EXPECT_EQ(pathsOf(tree, buildWith(tree, TextBudget::standard, nullptr, extract)),
            (std::vector<std::string>{"fine.txt", "limit.pdf"}));
}

TEST(ContentIndexBuilderTest, LargeTextCountsTwoMebibytesInAdmission) {
  TempTree tree;
  tree.add("large.txt");
  std::filesystem::resize_file(tree / "large.txt", 3 * 1024 * 1024);
  const std::vector<std::string> paths = {(tree / "large.txt").string()};
  EXPECT_EQ(Builder::withinTextBudget(paths, ContentIndex(), {1, 2'097'152}).paths, paths);
  EXPECT_TRUE(Builder::withinTextBudget(paths, ContentIndex(), {1, 2'097'151}).paths.empty());
}

TEST(ContentIndexBuilderTest, AdmissionCompetesWithAnExistingIndex) {
  TempTree tree({"fresh.txt", "doc.pdf"});
  testing::writeFile(tree / "fresh.txt", std::string(100, 'f'));
  setModified(tree / "fresh.txt", 50);
  ContentIndex existing;
  existing.upsert("/old/newer.txt", 60, std::string(100, 'n'));
  existing.upsert("/old/older.md", 40, std::string(100, 'o'));
  existing.upsert("/old/report.pdf", 1, "pdf");
  const std::vector<std::string> paths = {
      (tree / "fresh.txt").string(), (tree / "doc.pdf").string(), (tree / "missing.txt").string()};
  Builder::Admission admission = Builder::withinTextBudget(paths, existing, {2, 1000});
  EXPECT_EQ(admission.paths, paths);
  EXPECT_EQ(admission.displaced, (std::unordered_set<std::string>{"/old/older.md"}));

  admission = Builder::withinTextBudget(paths, existing, {1, 1000});
  EXPECT_EQ(admission.paths, (std::vector<std::string>{paths[1], paths[2]}));
  EXPECT_EQ(admission.displaced, (std::unordered_set<std::string>{"/old/older.md"}));
}

TEST(ContentIndexBuilderTest, EnforcingABudgetEvictsPlainTextOnly) {
  ContentIndex index;
  index.upsert("/a.txt", 3, "aaaa");
  index.upsert("/b.pdf", 1, "bbbb");
  index.upsert("/c.md", 2, "cccc");
  EXPECT_FALSE(Builder::enforceTextBudget(index, {2, 8}));
  EXPECT_TRUE(Builder::enforceTextBudget(index, {1, 8}));
  ASSERT_EQ(index.documents().size(), 2u);
  EXPECT_EQ(index.documents()[0].path, "/a.txt");
  EXPECT_EQ(index.documents()[1].path, "/b.pdf");
  EXPECT_EQ(index.deadBytes(), 4);
}

TEST(ContentIndexBuilderTest, UnchangedFilesReuseTheirOldText) {
  TempTree tree({"doc.txt"});
  testing::writeFile(tree / "doc.txt", "new text");
  const std::string path = (tree / "doc.txt").string();
  ContentIndex previous;
  previous.upsert(path, 1000, "Old Text");
  auto extracted = [](const std::string&) -> std::optional<std::string> { return "Extracted"; };

  setModified(path, 1000.0005);
  ContentIndex reused = buildWith(tree, TextBudget::standard, &previous, extracted);
  ASSERT_EQ(reused.documents().size(), 1u);
  EXPECT_EQ(reused.documents()[0].modified, 1000);
  EXPECT_EQ(reused.search("old text", 1).size(), 1u);

  setModified(path, 1000.01);
  ContentIndex fresh = buildWith(tree, TextBudget::standard, &previous, extracted);
  ASSERT_EQ(fresh.documents().size(), 1u);
  EXPECT_NEAR(fresh.documents()[0].modified, 1000.01, 1e-6);
  EXPECT_EQ(fresh.search("extracted", 1).size(), 1u);

  // A stored range outside the old blob is never lent.
  setModified(path, 1000);
  ContentIndex corrupt({{path, 1000, 5, 100}}, {'a', 'b'});
  EXPECT_EQ(
      buildWith(tree, TextBudget::standard, &corrupt, extracted).search("extracted", 1).size(), 1u);
}

TEST(ContentIndexBuilderTest, ProgressEveryTwentyFifthDocumentAndAtTheEnd) {
  TempTree tree;
  for (int i = 0; i < 60; ++i) tree.add("f" + std::to_string(i) + ".pdf", "abc");
  std::mutex lock;
  std::vector<Builder::Progress> reports;
  ContentIndex index = Builder::build(
      {tree.root()}, nullptr, {},
      [&](const Builder::Progress& progress) {
        std::lock_guard<std::mutex> guard(lock);
        reports.push_back(progress);
      },
      TextBudget::standard, readWhole);
  ASSERT_EQ(reports.size(), 3u);
  EXPECT_EQ(reports.back(), (Builder::Progress{60, 60, 180}));
  std::vector<int64_t> counts = {reports[0].documentsExtracted, reports[1].documentsExtracted};
  std::sort(counts.begin(), counts.end());
  EXPECT_EQ(counts, (std::vector<int64_t>{25, 50}));
  EXPECT_EQ(reports[0].textBytes, 0);
  EXPECT_EQ(reports[1].textBytes, 0);
  EXPECT_GE(reports[0].filesScanned, 25);
}

TEST(ContentIndexBuilderTest, CancellationKeepsWhatWasGathered) {
  TempTree tree({"a.txt", "b.txt"});
  std::vector<Builder::Progress> reports;
  ContentIndex none = Builder::build(
      {tree.root()}, nullptr, [] { return true; },
      [&](const Builder::Progress& progress) { reports.push_back(progress); }, TextBudget::standard,
      readWhole);
  EXPECT_TRUE(none.isEmpty());
  EXPECT_EQ(reports, (std::vector<Builder::Progress>{{0, 0, 0}}));

  // Cancelled once the folders are gathered: no extraction begins.
  testing::writeFile(tree / "a.txt", "a");
  std::atomic<int> asked = 0;
  std::atomic<int> extracted = 0;
  ContentIndex partial = Builder::build(
      {tree.root()}, nullptr, [&] { return ++asked > 3; }, {}, TextBudget::standard,
      [&](const std::string& path) {
        ++extracted;
        return readWhole(path);
      });
  EXPECT_TRUE(partial.isEmpty());
  EXPECT_EQ(extracted, 0);
}

}  // namespace
}  // namespace tarvolin
