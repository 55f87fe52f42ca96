#include <gtest/gtest.h>

#include "support/IndexFixture.h"
#include "support/RecordPaths.h"
#include "tarvolin/catalog/CatalogStats.h"
#include "tarvolin/catalog/FolderSizes.h"

namespace tarvolin {
namespace {

using testing::buildTree;
using testing::idOf;

uint32_t at(const IndexBuilder& builder, const std::string& path) {
  std::optional<uint32_t> id = idOf(builder, path);
  if (!id) throw std::runtime_error("no record at " + path);
  return *id;
}

TEST(FolderSizesTest, OneFileRollsUpThroughEveryAncestor) {
  IndexBuilder builder = buildTree({{"/Volumes/Disk/a/f.bin", 10, 5}});
  FolderSizes::rollUp(builder);
  for (const char* folder : {"", "/Volumes", "/Volumes/Disk", "/Volumes/Disk/a"}) {
    const FileRecord& record = builder[at(builder, folder)];
    EXPECT_EQ(record.size, 10u) << folder;
    EXPECT_TRUE(record.flags.contains(RecordFlags::attrsFilled)) << folder;
  }
  // Cataloguing /Volumes/Disk: its record is ID 2; "", "Volumes" and "Disk" are not counted.
  EXPECT_EQ(CatalogStats::measure(builder, 2), (CatalogStats{1, 1, 10}));
}

TEST(FolderSizesTest, FolderSumsIgnoreOldSizesKeepTimesAndSkipDeleted) {
  IndexBuilder builder = buildTree({{"/top/", 999, 77},
                                    {"/top/a", 5, 1},
                                    {"/top/sub/", 0, 0},
                                    {"/top/sub/b", 7, 1},
                                    {"/top/sub/gone", 1000, 1, RecordFlags::deleted},
                                    {"/top/dead/", std::nullopt, 0, RecordFlags::deleted},
                                    {"/top/dead/c", 3000, 1},
                                    {"/top/empty/"}});
  FolderSizes::rollUp(builder);
  EXPECT_EQ(builder[at(builder, "/top/sub")].size, 7u);
  const FileRecord& top = builder[at(builder, "/top")];
  EXPECT_EQ(top.size, 12u);  // 5 + 7; the deleted folder passes nothing on
  EXPECT_EQ(top.mtime, 77u);
  const FileRecord& empty = builder[at(builder, "/top/empty")];
  EXPECT_EQ(empty.size, 0u);
  EXPECT_TRUE(empty.flags.contains(RecordFlags::attrsFilled));
  // A deleted folder is left as it was.
  const FileRecord& dead = builder[at(builder, "/top/dead")];
  EXPECT_EQ(dead.size, 0u);
  EXPECT_FALSE(dead.flags.contains(RecordFlags::attrsFilled));

  // Folders "", top, sub, empty (dead is deleted); files a, b, c (gone is deleted).
  EXPECT_EQ(CatalogStats::measure(builder, std::nullopt), (CatalogStats{3, 4, 12}));
}

TEST(FolderSizesTest, StatsWithoutRootCountEveryFolderAndSumTheTops) {
  // An imported list: two drives as top records, no single root.
  IndexBuilder builder;
  uint32_t c = builder.addEntry("C:", FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  uint32_t d = builder.addEntry("D:", FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  uint32_t docs = builder.addEntry("docs", c, RecordFlags::isDirectory, 0);
  builder.setAttributes(builder.addEntry("a.txt", docs, {}, 0), 100, 0);
  builder.setAttributes(builder.addEntry("b.txt", d, {}, 0), 20, 0);
  builder.setAttributes(builder.addEntry("loose", FileRecord::rootParentID, {}, 0), 3, 0);
  FolderSizes::rollUp(builder);
  EXPECT_EQ(builder[c].size, 100u);
  EXPECT_EQ(builder[d].size, 20u);
  EXPECT_EQ(CatalogStats::measure(builder, std::nullopt), (CatalogStats{3, 3, 123}));
  // A root ID past the table is no root at all.
  EXPECT_EQ(CatalogStats::measure(builder, 1000), (CatalogStats{3, 3, 123}));
  // The root's own size, and a folder count that never goes below zero.
  EXPECT_EQ(CatalogStats::measure(builder, docs), (CatalogStats{3, 0, 100}));
}

TEST(FolderSizesTest, EmptyBuilder) {
  IndexBuilder builder;
  FolderSizes::rollUp(builder);
  EXPECT_EQ(CatalogStats::measure(builder, 0), CatalogStats{});
  EXPECT_EQ(CatalogStats::measure(builder, std::nullopt), CatalogStats{});
}

TEST(FolderSizesTest, SizesPastFourGigabytesAddUp) {
  IndexBuilder builder = buildTree({{"/v/a", 5'000'000'000, 1}, {"/v/b", 6'000'000'000, 1}});
  FolderSizes::rollUp(builder);
  EXPECT_EQ(builder[at(builder, "/v")].size, 11'000'000'000u);
  EXPECT_EQ(CatalogStats::measure(builder, 1).totalBytes, 11'000'000'000u);
}

}  // namespace
}  // namespace tarvolin
