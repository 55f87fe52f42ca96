// Every writer replaces its file through AtomicFile, whose three steps are watched here: the new
// file is synced, renamed over the target, and the target's folder is synced, in that order.
// Without the last step a crash soon after the rename may bring back the old directory entry.

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "reliability/ProbeWriters.h"
#include "support/TempTree.h"
#include "tarvolin/platform/AtomicFile.h"

namespace tarvolin {
namespace {

namespace fs = std::filesystem;
using platform::AtomicFile;
using Step = AtomicFile::Step;

struct Seen {
  Step step;
  fs::path path;
};

std::mutex seenLock;
std::vector<Seen> seen;

void remember(Step step, const fs::path& path) {
  std::lock_guard lock(seenLock);
  seen.push_back({step, path});
}

class ReplacementStepsTest : public ::testing::TestWithParam<std::string_view> {
 protected:
  void SetUp() override { AtomicFile::setObserver(remember); }
  void TearDown() override { AtomicFile::setObserver(nullptr); }
};

TEST_P(ReplacementStepsTest, SyncFileThenRenameThenSyncFolder) {
  std::string kind(GetParam());
  testing::TempTree tree;
  fs::path work = tree / "work";
  fs::path target = tree / "out" / "target";
  fs::create_directories(target.parent_path());
  probe::prepare(work);
  seen.clear();
  probe::writeVersion(kind, probe::versionsOf(kind).first, target, work);

  // The replacement of the target is the last rename seen; the steps around it are its own.
  std::vector<Seen> steps;
  {
    std::lock_guard lock(seenLock);
    steps = seen;
  }
  auto rename = std::find_if(steps.rbegin(), steps.rend(), [&](const Seen& s) {
    return s.step == Step::rename && s.path == target;
  });
  ASSERT_NE(rename, steps.rend()) << kind << " replaced its file without AtomicFile";
  auto at = rename.base() - 1;
  ASSERT_NE(at, steps.begin());
  EXPECT_EQ((at - 1)->step, Step::syncFile);
  // The file is made beside the target, or in a scratch folder beside it (the archive export).
  std::filesystem::path madeIn = (at - 1)->path.parent_path();
  EXPECT_TRUE(madeIn == target.parent_path() || madeIn.parent_path() == target.parent_path())
      << "synced elsewhere: " << (at - 1)->path;
  ASSERT_NE(at + 1, steps.end()) << "the folder was not synced after the rename";
  EXPECT_EQ((at + 1)->step, Step::syncFolder);
  EXPECT_EQ((at + 1)->path, target.parent_path());
}

INSTANTIATE_TEST_SUITE_P(Writers, ReplacementStepsTest, ::testing::ValuesIn(probe::kinds),
                         [](const auto& info) {
                           std::string name(info.param);
                           std::erase(name, '-');
                           return name;
                         });

// The steps of one replacement and of a move of a finished file, with nothing else between.
TEST(ReplacementStepsTest, AtomicFileCommitAndMoveIntoPlace) {
  testing::TempTree tree{"made.bin"};
  AtomicFile::setObserver(remember);
  seen.clear();
  AtomicFile::replaceContents(tree / "a.bin", std::span<const uint8_t>());
  AtomicFile::moveIntoPlace(tree / "made.bin", tree / "b.bin");
  AtomicFile::setObserver(nullptr);
  std::vector<std::pair<Step, fs::path>> expected = {
      {Step::syncFile, tree / "a.bin.tmp"}, {Step::rename, tree / "a.bin"},
      {Step::syncFolder, tree.root()},      {Step::syncFile, tree / "made.bin"},
      {Step::rename, tree / "b.bin"},       {Step::syncFolder, tree.root()}};
  ASSERT_EQ(seen.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(seen[i].step, expected[i].first) << i;
    EXPECT_EQ(seen[i].path, expected[i].second) << i;
  }
  EXPECT_FALSE(fs::exists(tree / "made.bin"));
}

}  // namespace
}  // namespace tarvolin
