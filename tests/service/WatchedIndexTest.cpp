// WatchedIndex in process on a temporary tree: changes are published as new stores, deleted
// records are compacted away past the share, the index file is rewritten no more often than the
// interval while changes go on, and once more at stop.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "support/Eventually.h"
#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/platform/AtomicFile.h"
#include "tarvolin/scan/DirectoryScanner.h"
#include "tarvolin/service/WatchedIndex.h"

namespace tarvolin {
namespace {

using namespace std::chrono_literals;
using testing::TempTree;

std::atomic<int> replaced = 0;
void countRenames(platform::AtomicFile::Step step, const std::filesystem::path&) {
  if (step == platform::AtomicFile::Step::rename) ++replaced;
}

using testing::eventually;

class WatchedIndexTest : public ::testing::Test {
 protected:
  WatchedIndexTest() : tree_({"keep/a.txt", "keep/b.txt"}) {
    for (int i = 0; i < 40; ++i) tree_.add("many/f" + std::to_string(i));
    DirectoryScanner scanner(ScanPolicy{}, 1, 0, "/nonexistent");
    IndexWriter::write(scanner.scan(tree_.root().string(), 0).builder,
                       {{"local", tree_.root().string(), 0, true}}, indexPath());
  }
  std::filesystem::path indexPath() const { return work_ / "index.bin"; }
  std::unique_ptr<WatchedIndex> watch(WatchedIndex::Options options) {
    auto store = std::get<std::shared_ptr<const IndexStore>>(loadIndex(indexPath()));
    auto index =
        std::make_unique<WatchedIndex>(indexPath(), store, ScanPolicy{}, "/nonexistent", options);
    index->start();
    return index;
  }
  bool has(const IndexStore& store, const std::string& relative) const {
    return testing::findRecord(store, (tree_ / relative).string()).has_value();
  }

  TempTree tree_;
  TempTree work_;
};

TEST_F(WatchedIndexTest, ChangesArePublishedAndCompactedPastTheShare) {
  WatchedIndex::Options options;
  options.compactionShare = 0.5;
  auto index = watch(options);
  uint32_t before = index->current()->count();
  EXPECT_EQ(index->status().watchMode, "inotify");

  tree_.add("keep/new.txt");
  ASSERT_TRUE(eventually([&] { return has(*index->current(), "keep/new.txt"); }));
  EXPECT_EQ(index->current()->count(), before + 1);

  // 41 of 47 records deleted: past half, so the next store leaves them out.
  std::filesystem::remove_all(tree_ / "many");
  ASSERT_TRUE(eventually([&] { return !has(*index->current(), "many"); }));
  EXPECT_LT(index->current()->count(), before - 30);
  EXPECT_EQ(index->status().deletedEntries, 0u);
  EXPECT_TRUE(has(*index->current(), "keep/b.txt"));
}

TEST_F(WatchedIndexTest, TheFileIsRewrittenAtMostOncePerIntervalAndAtStop) {
  replaced = 0;
  platform::AtomicFile::setObserver(countRenames);
  WatchedIndex::Options options;
  options.rewriteInterval = 1s;
  auto index = watch(options);
  auto started = std::chrono::steady_clock::now();
  for (int i = 0; i < 30; ++i) {
    tree_.add("keep/n" + std::to_string(i));
    std::this_thread::sleep_for(50ms);
  }
  ASSERT_TRUE(eventually([&] { return has(*index->current(), "keep/n29"); }));
  double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  index->stop();
  platform::AtomicFile::setObserver(nullptr);
  // One write at the first change, then one per full interval, then one at stop.
  EXPECT_LE(replaced, 2 + static_cast<int>(seconds));
  EXPECT_GE(replaced, 2);
  auto onDisk = std::get<std::shared_ptr<const IndexStore>>(loadIndex(indexPath()));
  EXPECT_TRUE(has(*onDisk, "keep/n29"));
  EXPECT_TRUE(index->lastWriteError().empty());
}

TEST_F(WatchedIndexTest, AFailedRewriteIsReportedAndTheOldFileStays) {
  auto index = watch({});
  tree_.add("keep/late.txt");
  // The first change is written at once (on the rewriter's thread); the next one waits for the
  // interval, then for the stop, by which time the temporary file cannot be made (a folder holds
  // its name).
  ASSERT_TRUE(eventually([&] {
    auto loaded = loadIndex(indexPath());
    auto* store = std::get_if<std::shared_ptr<const IndexStore>>(&loaded);
    return store != nullptr && has(**store, "keep/late.txt");
  }));
  std::filesystem::create_directory(work_ / "index.bin.tmp");
  tree_.add("keep/later.txt");
  ASSERT_TRUE(eventually([&] { return has(*index->current(), "keep/later.txt"); }));
  index->stop();
  auto onDisk = std::get<std::shared_ptr<const IndexStore>>(loadIndex(indexPath()));
  EXPECT_TRUE(has(*onDisk, "keep/late.txt"));
  EXPECT_FALSE(has(*onDisk, "keep/later.txt"));
  EXPECT_FALSE(index->lastWriteError().empty());
}

TEST_F(WatchedIndexTest, SubtreesPastTheWatchCapAreNamedAndListedOnATimer) {
  WatchedIndex::Options options;
  options.watch.watchCap = 1;  // the root only
  options.unwatchedInterval = 200ms;
  auto index = watch(options);
  ASSERT_TRUE(eventually([&] { return !index->status().unwatched.empty(); }));
  tree_.add("keep/deep/unseen.txt");
  // No watch sees it; the slow timer's listing does.
  ASSERT_TRUE(eventually([&] { return has(*index->current(), "keep/deep/unseen.txt"); }));
}

}  // namespace
}  // namespace tarvolin
