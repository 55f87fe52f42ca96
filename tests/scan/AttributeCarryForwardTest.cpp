#include <gtest/gtest.h>

#include "support/IndexFixture.h"
#include "support/RecordPaths.h"
#include "support/TempTree.h"
#include "tarvolin/scan/AttributeCarryForward.h"

namespace tarvolin {
namespace {

using testing::buildTree;
using testing::FixtureEntry;
using testing::TempTree;

const FileRecord& recordAt(const IndexBuilder& builder, const std::string& path) {
  std::optional<uint32_t> id = testing::idOf(builder, path);
  if (!id) throw std::runtime_error("no record at " + path);
  return builder[*id];
}

class AttributeCarryForwardTest : public ::testing::Test {
 protected:
  // Writes `old` (with its top record filled too) and loads it.
  std::shared_ptr<const IndexStore> store(IndexBuilder old) {
    old.setAttributes(0, 0, 1);
    return testing::writeAndLoad(old, folder_ / "old.bin");
  }
  TempTree folder_;
};

TEST_F(AttributeCarryForwardTest, IdenticalTreesCarryEveryRecord) {
  std::vector<FixtureEntry> entries = {{"/Users/", 0, 10},
                                       {"/Users/me/", 0, 20},
                                       {"/Users/me/a.txt", 5, 30},
                                       {"/Users/me/docs/", 0, 40},
                                       {"/Users/me/docs/b.pdf", 5'000'000'000, 50}};
  auto old = store(buildTree(entries));
  for (FixtureEntry& entry : entries) entry.size.reset();
  IndexBuilder fresh = buildTree(entries);
  EXPECT_EQ(AttributeCarryForward::carry(*old, fresh), fresh.recordCount());
  for (uint32_t id = 0; id < fresh.recordCount(); ++id) {
    EXPECT_EQ(fresh[id].size, (*old)[id].size);
    EXPECT_EQ(fresh[id].mtime, (*old)[id].mtime);
    EXPECT_EQ(fresh[id].flags, (*old)[id].flags);
  }
}

TEST_F(AttributeCarryForwardTest, NewChangedAndRetypedEntries) {
  auto old = store(buildTree({{"/a/", 0, 1},
                              {"/a/b/", 0, 2},
                              {"/a/b/kept", 7, 3},
                              {"/a/became-folder", 8, 4},
                              {"/a/became-file/", 0, 5},
                              {"/a/became-file/inner", 9, 6},
                              {"/a/Case", 10, 7},
                              {"/a/Jos\xC3\xA9", 11, 8},
                              {"/a/twice", 12, 9},
                              {"/a/twice", 13, 10}}));
  IndexBuilder fresh = buildTree({{"/a/b/kept"},
                                  {"/a/b/new"},
                                  {"/a/became-folder/inner"},
                                  {"/a/became-file"},
                                  {"/a/case"},
                                  {"/a/Jose\xCC\x81"},
                                  {"/a/twice"}});
  int64_t carried = AttributeCarryForward::carry(*old, fresh);
  EXPECT_EQ(recordAt(fresh, "/a/b/kept").size, 7u);
  EXPECT_FALSE(recordAt(fresh, "/a/b/new").flags.contains(RecordFlags::attrsFilled));
  for (const char* ancestor : {"", "/a", "/a/b"}) {
    EXPECT_TRUE(recordAt(fresh, ancestor).flags.contains(RecordFlags::attrsFilled)) << ancestor;
  }
  // A file that became a folder gets the file's values; its children are not matched.
  EXPECT_EQ(recordAt(fresh, "/a/became-folder").size, 8u);
  EXPECT_FALSE(recordAt(fresh, "/a/became-folder/inner").flags.contains(RecordFlags::attrsFilled));
  EXPECT_EQ(recordAt(fresh, "/a/became-file").mtime, 5u);
  EXPECT_FALSE(recordAt(fresh, "/a/case").flags.contains(RecordFlags::attrsFilled));
  EXPECT_EQ(recordAt(fresh, "/a/Jose\xCC\x81").size, 11u) << "canonically equivalent names match";
  EXPECT_EQ(recordAt(fresh, "/a/twice").size, 13u) << "the later old sibling wins";
  EXPECT_EQ(carried, 8);  // "", a, b, kept, became-folder, became-file, Jose, twice
}

TEST_F(AttributeCarryForwardTest, NothingToCarry) {
  auto unfilled = testing::writeAndLoad(buildTree({{"/a/b"}}), folder_ / "unfilled.bin");
  IndexBuilder fresh = buildTree({{"/a/b"}});
  EXPECT_EQ(AttributeCarryForward::carry(*unfilled, fresh), 0);

  auto empty = testing::writeAndLoad(IndexBuilder(), folder_ / "empty.bin");
  EXPECT_EQ(AttributeCarryForward::carry(*empty, fresh), 0);
  IndexBuilder none;
  EXPECT_EQ(AttributeCarryForward::carry(*store(buildTree({{"/a/b", 1, 1}})), none), 0);
}

}  // namespace
}  // namespace tarvolin
