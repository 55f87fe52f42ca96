// The catalog build: root record ids, counts over a real tree, and stops that write nothing.

#include <gtest/gtest.h>

#include <atomic>

#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "tarvolin/catalog/CatalogScanner.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/PathResolver.h"
#include "tarvolin/query/TrigramIndex.h"

namespace tarvolin {
namespace {

using testing::TempTree;
using testing::writeFile;

TEST(CatalogScannerTest, RootRecordIDCountsPathPieces) {
  const std::pair<const char*, uint32_t> cases[] = {
      {"/", 0}, {"", 0}, {"/Volumes/Disk", 2}, {"/Volumes/Disk/Photos/", 3}, {"//a//b/", 2}};
  for (const auto& [root, id] : cases) EXPECT_EQ(CatalogScanner::rootRecordID(root), id) << root;
}

CatalogScanner::Outcome scanTree(const TempTree& tree, const std::filesystem::path& target,
                                 const std::function<bool()>& shouldContinue,
                                 const std::filesystem::path& trigramTarget = {}) {
  return CatalogScanner::scan(tree.root().string(), "UUID-9", target, ScanPolicy{{}},
                              AttributeFiller::Appetite::watching, shouldContinue, {},
                              "/nonexistent", trigramTarget);
}

// The side file built beside the write is the one a build over the written index gives, tied
// to its checksum; an unwritable side file leaves the index whole.
TEST(CatalogScannerTest, WritesTheTrigramSideFileOfTheIndex) {
  TempTree tree{"alpha/beta/gamma.txt", "delta/epsilon.md"};
  TempTree output;
  std::filesystem::path target = output / "index.bin";
  scanTree(
      tree, target, [] { return true; }, output / "index.tri");
  auto store = std::make_shared<const IndexStore>(target);
  std::optional<TrigramIndex> loaded =
      TrigramIndex::load(output / "index.tri", store->header().checksum);
  ASSERT_TRUE(loaded);
  EXPECT_EQ(*loaded, TrigramIndex::build(*store, {}));

  std::filesystem::path blocked = target / "index.tri";  // below a file: cannot be made
  EXPECT_FALSE(scanTree(
                   tree, target, [] { return true; }, blocked)
                   .cancelled);
  EXPECT_TRUE(std::make_shared<const IndexStore>(target)->count() > 0);
  EXPECT_FALSE(std::filesystem::exists(blocked));
}

TEST(CatalogScannerTest, CountsFilesFoldersAndBytesBelowTheRoot) {
  TempTree tree{"a/b/"};
  writeFile(tree / "a/ten.bin", std::string(10, 'x'));
  writeFile(tree / "a/b/three.bin", "abc");
  writeFile(tree / "empty.txt", "");
  std::filesystem::create_directories(tree / "c");
  TempTree output;
  std::filesystem::path target = output / "Catalogs/X/index.bin";

  CatalogScanner::Outcome outcome = scanTree(tree, target, [] { return true; });
  uint32_t rootID = CatalogScanner::rootRecordID(tree.root().string());
  EXPECT_EQ(outcome, (CatalogScanner::Outcome{3, 3, 13, rootID, false}));

  auto store = std::make_shared<const IndexStore>(target);
  ASSERT_EQ(store->header().volumes.size(), 1u);
  EXPECT_EQ(store->header().volumes[0], (VolumeEntry{"UUID-9", tree.root().string(), 0, true}));
  EXPECT_EQ(PathResolver(store).absolutePath(rootID), tree.root().string());
  // Folders carry the rolled-up size of what they hold.
  std::optional<uint32_t> a = testing::findRecord(*store, (tree / "a").string());
  ASSERT_TRUE(a);
  EXPECT_EQ((*store)[*a].size, 13u);
  EXPECT_EQ((*store)[rootID].size, 13u);
}

TEST(CatalogScannerTest, StoppingAtAnyCheckWritesNothing) {
  TempTree tree{"a/b/c.txt", "d/e.txt"};
  TempTree output;
  std::filesystem::path target = output / "index.bin";
  std::atomic<int> calls = 0;
  scanTree(tree, target, [&] {
    ++calls;
    return true;
  });
  int total = calls.load();
  ASSERT_GE(total, 2);
  std::filesystem::remove(target);
  // The last check comes after the scan and the fill, before the roll-up; the first one stops
  // the scan itself. Either way nothing is written and the root id is reported.
  for (int stopAt : {1, total}) {
    writeFile(target, "earlier index");
    std::atomic<int> seen = 0;
    CatalogScanner::Outcome outcome = scanTree(tree, target, [&] { return ++seen < stopAt; });
    EXPECT_EQ(outcome, (CatalogScanner::Outcome{
                           0, 0, 0, CatalogScanner::rootRecordID(tree.root().string()), true}))
        << stopAt;
    EXPECT_EQ(testing::readFile(target), "earlier index") << stopAt;
  }
}

}  // namespace
}  // namespace tarvolin
