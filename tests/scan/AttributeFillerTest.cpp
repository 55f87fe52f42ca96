#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>

#include "support/RecordPaths.h"
#include "support/TempTree.h"
#include "tarvolin/scan/AttributeFiller.h"
#include "tarvolin/scan/DirectoryScanner.h"

namespace tarvolin {
namespace {

using AttributeFiller::Appetite;
using testing::idOf;
using testing::pathOf;
using testing::TempTree;

IndexBuilder scanned(const std::string& root) {
  return DirectoryScanner(ScanPolicy{}, 2, 0, "").scan(root, 0).builder;
}

void setModificationTime(const std::filesystem::path& path, int64_t seconds) {
  timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(seconds), 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

// Progress calls of one fill, in order.
struct ProgressLog {
  std::mutex lock;
  std::vector<int64_t> calls;
  std::function<void(int64_t)> callback() {
    return [this](int64_t count) {
      std::lock_guard guard(lock);
      calls.push_back(count);
    };
  }
};

const std::function<bool()> kAlways = [] { return true; };

TEST(AttributeFillerTest, FillsSizesAndTimesOfEveryRecord) {
  TempTree tree{"dir/small", "dir/sub/", "link -> dir"};
  testing::writeFile(tree / "dir/small", std::string(1234, 's'));
  testing::writeFile(tree / "huge", "");
  std::filesystem::resize_file(tree / "huge", 5'000'000'000);  // sparse
  testing::writeFile(tree / "old", "");
  testing::writeFile(tree / "future", "");
  setModificationTime(tree / "dir/small", 1'000'000'000);
  setModificationTime(tree / "old", -100);
  setModificationTime(tree / "future", 5'000'000'000);
  setModificationTime(tree / "dir/sub", 1'234'567'890);
  setModificationTime(tree / "link", 1'100'000'000);

  std::string root = tree.root().string();
  IndexBuilder builder = scanned(root);
  ProgressLog progress;
  AttributeFiller::fill(builder, kAlways, false, Appetite::watching, progress.callback());

  struct Expected {
    std::string path;
    uint64_t size;
    uint32_t mtime;
  };
  const Expected cases[] = {
      {"/dir/small", 1234, 1'000'000'000},
      {"/huge", 5'000'000'000, 0},
      {"/old", 0, 0},
      {"/future", 0, 0xFFFFFFFF},
      {"/dir/sub", 0, 1'234'567'890},
      {"/link", 3, 1'100'000'000},
  };
  for (const Expected& expected : cases) {
    std::optional<uint32_t> id = idOf(builder, root + expected.path);
    ASSERT_TRUE(id) << expected.path;
    const FileRecord& record = builder[*id];
    EXPECT_TRUE(record.flags.contains(RecordFlags::attrsFilled)) << expected.path;
    EXPECT_EQ(record.size, expected.size) << expected.path;
    if (expected.path != "/huge") {
      EXPECT_EQ(record.mtime, expected.mtime) << expected.path;
    }
  }
  // Everything but the top record is listed by its parent, the root chain included.
  for (uint32_t id = 1; id < builder.recordCount(); ++id) {
    EXPECT_TRUE(builder[id].flags.contains(RecordFlags::attrsFilled)) << pathOf(builder, id);
  }
  EXPECT_FALSE(builder[0].flags.contains(RecordFlags::attrsFilled));
  ASSERT_FALSE(progress.calls.empty());
  EXPECT_EQ(progress.calls.back(), builder.recordCount() - 1) << "every child was covered";
}

TEST(AttributeFillerTest, NothingToListCallsProgressOnceWithZero) {
  IndexBuilder empty;
  ProgressLog none;
  AttributeFiller::fill(empty, kAlways, false, Appetite::working, none.callback());
  EXPECT_TRUE(none.calls.empty());

  IndexBuilder childless;
  childless.addEntry(std::string_view(""), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  ProgressLog once;
  AttributeFiller::fill(childless, kAlways, false, Appetite::working, once.callback());
  EXPECT_EQ(once.calls, std::vector<int64_t>{0});
}

TEST(AttributeFillerTest, OnlyMissingListsTheDirectoriesWithNewEntriesAndTheirParents) {
  TempTree tree{"a/b/c/old1", "a/b/c/old2", "a/b/sibling", "a/x/y", "new -> a"};
  std::string root = tree.root().string();
  IndexBuilder builder = scanned(root);
  AttributeFiller::fill(builder, kAlways, false, Appetite::watching, nullptr);

  ProgressLog nothing;
  AttributeFiller::fill(builder, kAlways, true, Appetite::watching, nothing.callback());
  EXPECT_EQ(nothing.calls, std::vector<int64_t>{0});

  // A record added after the fill, as a partial rescan would.
  uint32_t c = *idOf(builder, root + "/a/b/c");
  testing::writeFile(tree / "a/b/c/new", "12345");
  uint32_t added = builder.addEntry(std::string_view("new"), c, RecordFlags(), 0);
  ProgressLog listed;
  AttributeFiller::fill(builder, kAlways, true, Appetite::watching, listed.callback());
  EXPECT_TRUE(builder[added].flags.contains(RecordFlags::attrsFilled));
  EXPECT_EQ(builder[added].size, 5u);
  // /a/b/c covers its 3 children, /a/b its 2.
  EXPECT_EQ(listed.calls.back(), 5);
}

TEST(AttributeFillerTest, StoppingFillsNothingMore) {
  TempTree tree{"a/b", "c"};
  IndexBuilder builder = scanned(tree.root().string());
  AttributeFiller::fill(
      builder, [] { return false; }, false, Appetite::watching, nullptr);
  for (const FileRecord& record : builder.records()) {
    EXPECT_FALSE(record.flags.contains(RecordFlags::attrsFilled));
  }
}

TEST(AttributeFillerTest, WorkerCountFollowsTheAppetite) {
  struct Case {
    size_t cores, watching, working;
  };
  for (Case c : {Case{1, 1, 1}, Case{2, 1, 1}, Case{4, 3, 2}, Case{8, 7, 4}, Case{16, 8, 4},
                 Case{64, 8, 4}}) {
    EXPECT_EQ(AttributeFiller::workerCount(Appetite::watching, c.cores), c.watching) << c.cores;
    EXPECT_EQ(AttributeFiller::workerCount(Appetite::working, c.cores), c.working) << c.cores;
  }
}

}  // namespace
}  // namespace tarvolin
