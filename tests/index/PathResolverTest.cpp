#include <gtest/gtest.h>

#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "tarvolin/index/ChildrenIndex.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/index/ParentWalk.h"
#include "tarvolin/index/PathResolver.h"

namespace tarvolin {
namespace {

TEST(PathResolverTest, BuildsAbsolutePathsForScannedAndImportedTrees) {
  testing::TempTree tree;
  IndexBuilder builder;
  uint32_t root =
      builder.addEntry(std::string_view(""), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  uint32_t volumes =
      builder.addEntry(std::string_view("Volumes"), root, RecordFlags::isDirectory, 0);
  uint32_t drive = builder.addEntry(std::string_view("C:"), FileRecord::rootParentID,
                                    RecordFlags::isDirectory, 1);
  uint32_t file = builder.addEntry(std::string_view("a.txt"), drive, RecordFlags(), 1);
  uint32_t share = builder.addEntry(std::string_view("//server/share"), FileRecord::rootParentID,
                                    RecordFlags::isDirectory, 2);
  uint32_t bad = builder.addEntry(std::string_view("bad\xFF"), share, RecordFlags(), 2);
  PathResolver resolver(testing::writeAndLoad(builder, tree / "index.bin"));

  EXPECT_EQ(resolver.absolutePath(root), "/");
  EXPECT_EQ(resolver.parentPath(root), "/");
  EXPECT_EQ(resolver.absolutePath(volumes), "/Volumes");
  EXPECT_EQ(resolver.parentPath(volumes), "/");
  EXPECT_EQ(resolver.absolutePath(drive), "C:");
  EXPECT_EQ(resolver.parentPath(drive), "/");
  EXPECT_EQ(resolver.absolutePath(file), "C:/a.txt");
  EXPECT_EQ(resolver.absolutePath(bad), "//server/share/bad\xEF\xBF\xBD");
}

TEST(PathResolverTest, DeepChainsAndLoopsStopAt256Components) {
  testing::TempTree tree;
  IndexBuilder builder;
  uint32_t parent =
      builder.addEntry(std::string_view(""), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  for (int depth = 1; depth <= 300; ++depth) {
    parent = builder.addEntry(std::string_view("d"), parent, RecordFlags::isDirectory, 0);
  }
  // A loop of two records pointing at each other (appended as raw links through a merge).
  IndexBuilder loop;
  loop.addEntry(std::string_view("x"), 1, RecordFlags(), 0);
  loop.addEntry(std::string_view("y"), 0, RecordFlags(), 0);
  uint32_t base = builder.recordCount();
  builder.merge(loop, 0);
  PathResolver resolver(testing::writeAndLoad(builder, tree / "index.bin"));

  std::string deep = resolver.absolutePath(300);
  EXPECT_EQ(std::count(deep.begin(), deep.end(), '/'), 255);
  EXPECT_TRUE(resolver.containsCycle(300));
  EXPECT_FALSE(resolver.containsCycle(255));
  EXPECT_TRUE(resolver.containsCycle(256));

  std::string looped = resolver.absolutePath(base);
  EXPECT_EQ(looped.size(), 256u * 2 - 1);
  EXPECT_TRUE(resolver.containsCycle(base));
}

TEST(ChildrenIndexTest, ListsChildrenRootsAndSkipsDeletedRecords) {
  testing::TempTree tree;
  IndexBuilder builder;
  uint32_t a = builder.addEntry(std::string_view("a"), FileRecord::rootParentID,
                                RecordFlags::isDirectory, 0);
  uint32_t b = builder.addEntry(std::string_view("b"), a,
                                RecordFlags(RecordFlags::isDirectory | RecordFlags::deleted), 0);
  uint32_t c = builder.addEntry(std::string_view("c"), b, RecordFlags(), 0);
  uint32_t d = builder.addEntry(std::string_view("d"), a, RecordFlags(), 0);
  uint32_t e = builder.addEntry(std::string_view("e"), FileRecord::rootParentID, RecordFlags(), 0);
  auto store = testing::writeAndLoad(builder, tree / "index.bin");
  ChildrenIndex children(*store);

  EXPECT_EQ(children.roots(), (std::vector<uint32_t>{a, e}));
  auto list = [&](uint32_t id) {
    auto span = children.children(id);
    return std::vector<uint32_t>(span.begin(), span.end());
  };
  EXPECT_EQ(list(a), (std::vector<uint32_t>{d}));
  EXPECT_EQ(list(b), (std::vector<uint32_t>{c}));
  EXPECT_TRUE(list(store->count()).empty());
  EXPECT_TRUE(list(0xFFFFFFFF).empty());

  IndexWriter::write(IndexBuilder(), {}, tree / "empty.bin");
  ChildrenIndex none(IndexStore(tree / "empty.bin"));
  EXPECT_EQ(none.start(), (std::vector<uint32_t>{0}));
  EXPECT_TRUE(none.ids().empty());
  EXPECT_TRUE(none.roots().empty());
}

}  // namespace
}  // namespace tarvolin

namespace tarvolin {
namespace {

// Records whose parent links are given directly: links[i] is the parent of record i.
std::vector<FileRecord> linked(const std::vector<uint32_t>& links) {
  std::vector<FileRecord> records(links.size());
  for (size_t i = 0; i < links.size(); ++i) records[i].parentID = links[i];
  return records;
}

TEST(ParentWalkTest, VisitsUpToTheTopTheLimitOrABrokenLink) {
  constexpr uint32_t top = FileRecord::rootParentID;
  std::vector<uint32_t> chain(300);  // record i's parent is i - 1; record 0 is a top record
  chain[0] = top;
  for (uint32_t i = 1; i < chain.size(); ++i) chain[i] = i - 1;
  struct Case {
    const char* what;
    std::vector<uint32_t> links;
    uint32_t start;
    size_t limit;
    size_t visited;
    uint32_t last;  // the last record visited
    bool reachedTop;
  };
  const Case cases[] = {
      {"a top record alone", {top}, 0, ParentWalk::maxDepth, 1, 0, true},
      {"255 steps reach the top", chain, 255, ParentWalk::maxDepth, 256, 0, true},
      {"the 257th record is not visited", chain, 256, ParentWalk::maxDepth, 256, 1, false},
      {"a longer limit goes further", chain, 256, 257, 257, 0, true},
      {"a loop stops at the limit", {1, 0}, 0, ParentWalk::maxDepth, 256, 1, false},
      {"a link out of the table ends the walk", {top, 7}, 1, ParentWalk::maxDepth, 1, 1, false},
      {"a start out of the table is an empty walk", {top}, 1, ParentWalk::maxDepth, 0, 0, false},
      {"a limit of 0 is an empty walk", {top}, 0, 0, 0, 0, false},
  };
  for (const Case& c : cases) {
    std::vector<FileRecord> records = linked(c.links);
    ParentWalk walk(records, c.start, c.limit);
    size_t visited = 0;
    uint32_t last = 0;
    for (; walk.valid(); walk.next()) {
      if (visited > 0) {
        EXPECT_EQ(walk.id(), records[last].parentID) << c.what;
      }
      last = walk.id();
      ++visited;
    }
    EXPECT_EQ(visited, c.visited) << c.what;
    EXPECT_EQ(last, c.last) << c.what;
    EXPECT_EQ(walk.reachedTop(), c.reachedTop) << c.what;
  }
}

}  // namespace
}  // namespace tarvolin
