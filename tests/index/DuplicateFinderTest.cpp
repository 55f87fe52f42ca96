#include <gtest/gtest.h>

#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "tarvolin/index/DuplicateFinder.h"

namespace tarvolin {
namespace {

using DuplicateFinder::Copy;
using testing::buildTree;
using testing::FixtureEntry;

class DuplicateFinderTest : public ::testing::Test {
 protected:
  std::shared_ptr<const IndexStore> load(const std::vector<FixtureEntry>& entries) {
    return testing::writeAndLoad(buildTree(entries), folder_.root() / "index.bin");
  }
  uint32_t id(const std::string& path) {
    std::optional<uint32_t> found = testing::findRecord(*store_, path);
    if (!found) throw std::runtime_error("no record at " + path);
    return *found;
  }
  std::vector<Copy> copiesOf(const std::string& path, int64_t limit = 100) {
    return DuplicateFinder::copies(id(path), *store_, limit);
  }

  testing::TempTree folder_;
  std::shared_ptr<const IndexStore> store_;
};

TEST_F(DuplicateFinderTest, SameSizeCopiesComeFirstWhateverTheAsciiCase) {
  store_ = load({{"/a/report.pdf", 999, 1},
                 {"/b/Report.PDF", 1000, 1},
                 {"/c/report.pdf", 1000, 1},
                 {"/d/report.pdf/"},  // a folder of that name
                 {"/e/report.pdfx", 1000, 1},
                 {"/f/report.pd", 1000, 1},
                 {"/g/r\xC3\xA9port.pdf", 1000, 1}});
  EXPECT_EQ(copiesOf("/b/Report.PDF"),
            (std::vector<Copy>{{id("/c/report.pdf"), true}, {id("/a/report.pdf"), false}}));
  EXPECT_EQ(copiesOf("/c/report.pdf"),
            (std::vector<Copy>{{id("/b/Report.PDF"), true}, {id("/a/report.pdf"), false}}));
  // Files are never copies of a folder, nor the reverse.
  EXPECT_EQ(copiesOf("/d/report.pdf"), std::vector<Copy>{});
  EXPECT_EQ(copiesOf("/f/report.pd"), std::vector<Copy>{});
}

TEST_F(DuplicateFinderTest, OnlyAsciiLettersFoldAndFoldersMatchFolders) {
  store_ = load({{"/x/\xC3\x89t\xC3\xA9.txt", 5, 1},  // "Été.txt"
                 {"/y/\xC3\xA9t\xC3\xA9.txt", 5, 1},  // "été.txt": differs in a non-ASCII letter
                 {"/z/\xC3\x89T\xC3\xA9.TXT", 5, 1},  // ASCII letters differ only
                 {"/p/Photos/"},
                 {"/q/photos/"},
                 {"/r/PHOTOS", 0, 1}});
  EXPECT_EQ(copiesOf("/x/\xC3\x89t\xC3\xA9.txt"),
            (std::vector<Copy>{{id("/z/\xC3\x89T\xC3\xA9.TXT"), true}}));
  // Folders have size 0, so a folder never has same-size copies.
  EXPECT_EQ(copiesOf("/p/Photos"), (std::vector<Copy>{{id("/q/photos"), false}}));
}

TEST_F(DuplicateFinderTest, LimitsCutSameSizeThenOthersInIdOrder) {
  std::vector<FixtureEntry> entries;
  for (int i = 0; i < 5; ++i) entries.push_back({"/s" + std::to_string(i) + "/f", 10, 1});
  for (int i = 0; i < 4; ++i) entries.push_back({"/o" + std::to_string(i) + "/f", 11, 1});
  store_ = load(entries);
  struct Case {
    std::string name;
    std::string of;
    int64_t limit;
    std::vector<std::pair<std::string, bool>> expected;
  };
  std::vector<Case> cases = {
      {"two of four same-size", "/s0/f", 2, {{"/s1/f", true}, {"/s2/f", true}}},
      {"same-size exactly fill",
       "/s0/f",
       4,
       {{"/s1/f", true}, {"/s2/f", true}, {"/s3/f", true}, {"/s4/f", true}}},
      {"then the first others",
       "/s0/f",
       6,
       {{"/s1/f", true},
        {"/s2/f", true},
        {"/s3/f", true},
        {"/s4/f", true},
        {"/o0/f", false},
        {"/o1/f", false}}},
      // Sought from one of the 11-byte files: three same-size copies, then the 10-byte ones.
      {"one size from the other group",
       "/o3/f",
       5,
       {{"/o0/f", true}, {"/o1/f", true}, {"/o2/f", true}, {"/s0/f", false}, {"/s1/f", false}}},
      {"limit zero", "/s0/f", 0, {}},
      {"negative limit", "/s0/f", -3, {}},
  };
  for (const Case& c : cases) {
    std::vector<Copy> expected;
    for (const auto& [path, same] : c.expected) expected.push_back({id(path), same});
    EXPECT_EQ(copiesOf(c.of, c.limit), expected) << c.name;
  }
}

TEST_F(DuplicateFinderTest, OneSameSizeCopyThenTwoOthersWithLimitThree) {
  store_ = load({{"/a/x", 1, 1},
                 {"/b/x", 2, 1},
                 {"/c/x", 7, 1},
                 {"/d/x", 3, 1},
                 {"/e/x", 4, 1},
                 {"/f/x", 7, 1}});
  EXPECT_EQ(copiesOf("/c/x", 3),
            (std::vector<Copy>{{id("/f/x"), true}, {id("/a/x"), false}, {id("/b/x"), false}}));
}

TEST_F(DuplicateFinderTest, ZeroSizeDeletedAndOutOfRange) {
  store_ = load({{"/a/empty", 0, 1},
                 {"/b/empty", 0, 1},
                 {"/c/empty", 0, 1, RecordFlags::deleted},
                 {"/d/unique.txt", 3, 1},
                 {"/e/gone", 3, 1, RecordFlags::deleted},
                 {"/f/gone", 3, 1}});
  // Size 0 never counts as the same size, even against another 0.
  EXPECT_EQ(copiesOf("/a/empty"), (std::vector<Copy>{{id("/b/empty"), false}}));
  EXPECT_EQ(copiesOf("/d/unique.txt"), std::vector<Copy>{});
  EXPECT_EQ(copiesOf("/e/gone"), std::vector<Copy>{});
  EXPECT_EQ(copiesOf("/f/gone"), std::vector<Copy>{});
  EXPECT_EQ(DuplicateFinder::copies(store_->count(), *store_, 10), std::vector<Copy>{});
  EXPECT_EQ(DuplicateFinder::copies(0xFFFFFFFFu, *store_, 10), std::vector<Copy>{});
}

TEST_F(DuplicateFinderTest, ByNameWithAndWithoutExclusion) {
  store_ = load({{"/a/Notes.md", 8, 1}, {"/b/notes.MD", 8, 1}});
  uint32_t a = id("/a/Notes.md");
  uint32_t b = id("/b/notes.MD");
  EXPECT_EQ(DuplicateFinder::copies("NOTES.md", false, 8, *store_, std::nullopt, 10),
            (std::vector<Copy>{{a, true}, {b, true}}));
  EXPECT_EQ(DuplicateFinder::copies("notes.md", false, 9, *store_, b, 10),
            (std::vector<Copy>{{a, false}}));
  EXPECT_EQ(DuplicateFinder::copies("", false, 8, *store_, std::nullopt, 10), std::vector<Copy>{});
  EXPECT_EQ(DuplicateFinder::copies(std::string(300, 'a'), false, 8, *store_, std::nullopt, 10),
            std::vector<Copy>{});
}

}  // namespace
}  // namespace tarvolin
