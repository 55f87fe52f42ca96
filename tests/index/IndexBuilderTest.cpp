#include <gtest/gtest.h>

#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/index/IndexStore.h"

namespace tarvolin {
namespace {

TEST(IndexBuilderTest, AddsRecordsCutsLongNamesAndFillsAttributes) {
  IndexBuilder builder;
  EXPECT_EQ(builder.addEntry(std::string_view("abc"), FileRecord::rootParentID,
                             RecordFlags::isDirectory, 0),
            0u);
  EXPECT_EQ(builder[0].nameOffset, 0u);
  std::string longName(300, 'x');
  uint32_t id = builder.addEntry(std::string_view(longName), 0, RecordFlags(), 3);
  EXPECT_EQ(builder[id].nameLen, 255);
  EXPECT_EQ(builder[id].volumeIndex, 3);
  uint32_t next = builder.addEntry(std::string_view("n"), 0, RecordFlags(), 0);
  EXPECT_EQ(builder[next].nameOffset, 3u + 255u);
  EXPECT_EQ(builder.nameBlob().size(), 3u + 255u + 1u);

  builder.setAttributes(next, 5'000'000'000ull, 42);
  EXPECT_EQ(builder[next].size, 5'000'000'000ull);
  EXPECT_EQ(builder[next].mtime, 42u);
  EXPECT_TRUE(builder[next].flags.contains(RecordFlags::attrsFilled));
}

TEST(IndexBuilderTest, NameCutInsideACharacterDecodesWithReplacement) {
  IndexBuilder builder;
  std::string name(254, 'a');
  name += "\xC3\xA9";  // é straddles the 255-byte limit
  uint32_t id =
      builder.addEntry(std::string_view(name), FileRecord::rootParentID, RecordFlags(), 0);
  EXPECT_EQ(builder[id].nameLen, 255);
  EXPECT_EQ(builder.name(id), std::string(254, 'a') + "\xEF\xBF\xBD");
}

TEST(IndexBuilderTest, MergeRebasesLinksAndOffsetsAndKeepsAttributes) {
  IndexBuilder main;
  main.addEntry(std::string_view(""), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  uint32_t folder = main.addEntry(std::string_view("dir"), 0, RecordFlags::isDirectory, 0);

  IndexBuilder part;
  uint32_t sub =
      part.addEntry(std::string_view("sub"), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  uint32_t file = part.addEntry(std::string_view("file.txt"), sub, RecordFlags(), 0);
  part.setAttributes(file, 10, 20);

  std::vector<uint32_t> map = main.merge(part, folder);
  ASSERT_EQ(map, (std::vector<uint32_t>{2, 3}));
  EXPECT_EQ(main[2].parentID, folder);
  EXPECT_EQ(main[3].parentID, 2u);
  EXPECT_EQ(main.name(3), "file.txt");
  EXPECT_EQ(main[3].size, 10u);
  EXPECT_TRUE(main[3].flags.contains(RecordFlags::attrsFilled));

  IndexBuilder empty;
  EXPECT_TRUE(main.merge(empty, folder).empty());
  EXPECT_EQ(main.recordCount(), 4u);
}

TEST(IndexBuilderTest, CopyVolumeCopiesOneVolumeAndDropsOrphans) {
  testing::TempTree tree;
  IndexBuilder source;
  uint32_t top0 =
      source.addEntry(std::string_view(""), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  uint32_t top1 = source.addEntry(std::string_view("C:"), FileRecord::rootParentID,
                                  RecordFlags::isDirectory, 1);
  // A child that comes before its parent is dropped with its subtree.
  uint32_t orphan = source.addEntry(std::string_view("orphan"), 4, RecordFlags(), 1);
  uint32_t kept = source.addEntry(std::string_view("kept"), top1, RecordFlags(), 1);
  source.addEntry(std::string_view("late-parent"), top1, RecordFlags::isDirectory, 1);
  source.addEntry(std::string_view("below-orphan"), orphan, RecordFlags(), 1);
  source.setAttributes(kept, 7, 8);
  source.addEntry(std::string_view("other"), top0, RecordFlags(), 0);
  auto store = testing::writeAndLoad(source, tree / "index.bin");

  IndexBuilder target;
  target.addEntry(std::string_view("existing"), FileRecord::rootParentID, RecordFlags(), 0);
  std::optional<uint32_t> first = target.copyVolume(*store, 1, 5);
  ASSERT_EQ(first, 1u);
  ASSERT_EQ(target.recordCount(), 4u);
  EXPECT_EQ(target.name(1), "C:");
  EXPECT_EQ(target.name(2), "kept");
  EXPECT_EQ(target.name(3), "late-parent");
  EXPECT_EQ(target[2].parentID, 1u);
  EXPECT_EQ(target[2].volumeIndex, 5);
  EXPECT_EQ(target[2].size, 7u);
  EXPECT_TRUE(target[2].flags.contains(RecordFlags::attrsFilled));

  EXPECT_EQ(target.copyVolume(*store, 9, 0), std::nullopt);
  EXPECT_EQ(target.recordCount(), 4u);
}

}  // namespace
}  // namespace tarvolin
