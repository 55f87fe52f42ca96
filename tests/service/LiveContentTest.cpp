// LiveContent on a temporary tree with a plain reader for every extension: documents changed,
// removed and made in a named folder are re-read, dropped and added (new ones only inside the
// content folders or beside indexed documents), hidden and skipped folders stay out, and the
// written file reads back the same.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "support/TempTree.h"
#include "tarvolin/service/LiveContent.h"

namespace tarvolin {
namespace {

namespace fs = std::filesystem;
using testing::TempTree;

std::optional<std::string> readWhole(const std::string& path) {
  std::error_code error;
  if (!fs::is_regular_file(path, error)) return std::nullopt;
  return testing::readFile(path);
}

class LiveContentTest : public ::testing::Test {
 protected:
  LiveContentTest() {
    tree_.add("docs/plan.txt", "alpha plan");
    tree_.add("docs/report.pdf", "beta report");
    tree_.add("elsewhere/known.md", "gamma notes");
    tree_.add("elsewhere/other/unrelated.md", "nothing");
    ContentIndex index = ContentIndexBuilder::build(
        {tree_ / "docs"}, nullptr, {}, {}, ContentIndexBuilder::TextBudget::standard, readWhole);
    // One document outside the content folders, as from `tvl content` of another folder.
    auto written = fs::last_write_time(tree_ / "elsewhere/known.md");
    index.upsert(
        (tree_ / "elsewhere/known.md").string(),
        std::chrono::duration<double>(std::chrono::file_clock::to_sys(written).time_since_epoch())
            .count(),
        "gamma notes");
    index.write(contentPath());
    live_ = LiveContent::open(contentPath(), {(tree_ / "docs").string()}, readWhole);
  }
  fs::path contentPath() const { return work_ / "content.bin"; }
  std::string folder(const std::string& relative) const { return (tree_ / relative).string(); }
  size_t hits(const std::string& word) const { return live_->index().search(word, 100).size(); }
  // A write lands in a later second than the build's, whatever the file system's precision.
  void rewrite(const std::string& relative, const std::string& text) {
    testing::writeFile(tree_ / relative, text);
    fs::last_write_time(tree_ / relative,
                        fs::last_write_time(tree_ / relative) + std::chrono::seconds(5));
  }

  TempTree tree_;
  TempTree work_;
  std::unique_ptr<LiveContent> live_;
};

TEST_F(LiveContentTest, NamedFoldersAreBroughtUpToDate) {
  ASSERT_TRUE(live_);
  ASSERT_EQ(hits("alpha"), 1u);
  rewrite("docs/plan.txt", "delta plan");
  fs::remove(tree_ / "docs/report.pdf");
  tree_.add("docs/new.csv", "epsilon");
  tree_.add("docs/.hidden/secret.txt", "zeta");
  tree_.add("docs/node_modules/pkg.md", "zeta");
  tree_.add("docs/picture.png", "zeta");
  tree_.add("elsewhere/also.md", "eta");           // beside a document: added
  tree_.add("elsewhere/other/loose.md", "theta");  // neither: left out
  EXPECT_TRUE(live_->update({folder("docs"), folder("docs/.hidden"), folder("docs/node_modules"),
                             folder("elsewhere"), folder("elsewhere/other")}));
  EXPECT_EQ(hits("alpha"), 0u);
  EXPECT_EQ(hits("delta"), 1u);
  EXPECT_EQ(hits("beta"), 0u);
  EXPECT_EQ(hits("epsilon"), 1u);
  EXPECT_EQ(hits("zeta"), 0u);
  EXPECT_EQ(hits("eta"), 1u);
  EXPECT_EQ(hits("theta"), 0u);
  // Nothing new: nothing changes.
  EXPECT_FALSE(live_->update({folder("docs"), folder("elsewhere")}));

  live_->writeIfChanged();
  ContentIndex reread = ContentIndex::read(contentPath());
  EXPECT_EQ(reread.documents().size(), live_->index().documents().size());
  EXPECT_EQ(reread.search("delta", 10).size(), 1u);
}

TEST_F(LiveContentTest, AFolderThatWentAwayLosesItsDocuments) {
  fs::remove_all(tree_ / "docs");
  EXPECT_TRUE(live_->update({folder("docs")}));
  EXPECT_EQ(hits("plan"), 0u);
  EXPECT_EQ(hits("gamma"), 1u);
}

TEST_F(LiveContentTest, NoUsableFileMeansNothingToKeep) {
  EXPECT_FALSE(LiveContent::open(work_ / "missing.bin", {}, readWhole));
  // A damaged file is kept as the empty index, or refused; never a crash.
  testing::writeFile(work_ / "bad.bin", std::string("\xff\xff\xff\x7f garbage", 12));
  if (auto bad = LiveContent::open(work_ / "bad.bin", {}, readWhole)) {
    EXPECT_TRUE(bad->index().isEmpty());
  }
}

}  // namespace
}  // namespace tarvolin
