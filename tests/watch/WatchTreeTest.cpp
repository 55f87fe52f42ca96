#include <gtest/gtest.h>

#include <algorithm>

#include "tarvolin/watch/detail/WatchTree.h"

namespace tarvolin::watch_detail {
namespace {

std::vector<int> sorted(std::vector<int> watches) {
  std::sort(watches.begin(), watches.end());
  return watches;
}

// Siblings whose names extend the folder's ("b-c", "b.d", "b c" sort between "b" and "b/...")
// are not part of its subtree.
TEST(WatchTreeTest, SubtreeIsTheFolderAndWhatLiesBelowItOnly) {
  WatchTree tree;
  tree.set(1, "/r");
  tree.set(2, "/r/b");
  tree.set(3, "/r/b-c");
  tree.set(4, "/r/b/x");
  tree.set(5, "/r/b.d");
  tree.set(6, "/r/b c");
  tree.set(7, "/r/b/x/y");
  EXPECT_EQ(sorted(tree.subtree("/r/b")), (std::vector<int>{2, 4, 7}));
  EXPECT_EQ(sorted(tree.subtree("/r")), (std::vector<int>{1, 2, 3, 4, 5, 6, 7}));
  EXPECT_EQ(tree.subtree("/r/none"), std::vector<int>{});
  tree.set(8, "/");
  EXPECT_EQ(tree.subtree("/").size(), 8u);
}

TEST(WatchTreeTest, RenameMovesTheFolderAndEverythingBelowIt) {
  WatchTree tree;
  tree.set(1, "/r/a");
  tree.set(2, "/r/a/b");
  tree.set(3, "/r/a-sibling");
  tree.set(4, "/r/z");
  tree.set(5, "/r/z/stale");  // replaced by the move below
  tree.rename("/r/a", "/r/z");
  EXPECT_EQ(*tree.path(1), "/r/z");
  EXPECT_EQ(*tree.path(2), "/r/z/b");
  EXPECT_EQ(*tree.path(3), "/r/a-sibling");
  EXPECT_EQ(tree.path(4), nullptr);
  EXPECT_EQ(tree.path(5), nullptr);
  EXPECT_EQ(sorted(tree.subtree("/r/z")), (std::vector<int>{1, 2}));
  EXPECT_TRUE(tree.subtree("/r/a").empty());
}

// The kernel hands out the same watch again for a folder already watched under another path
// (a second root naming it, a folder that moved while unwatched): the newest path wins and no
// stale path keeps pointing at the watch.
TEST(WatchTreeTest, SetReplacesBothDirections) {
  WatchTree tree;
  tree.set(1, "/old");
  tree.set(1, "/new");
  EXPECT_EQ(*tree.path(1), "/new");
  EXPECT_TRUE(tree.subtree("/old").empty());
  tree.set(2, "/new");
  EXPECT_EQ(tree.path(1), nullptr);
  EXPECT_EQ(tree.size(), 1u);
  tree.erase(2);
  tree.erase(2);
  EXPECT_EQ(tree.size(), 0u);
}

TEST(WatchTreeTest, JoinPathDoesNotDoubleTheRootSlash) {
  EXPECT_EQ(joinPath("/", "etc"), "/etc");
  EXPECT_EQ(joinPath("/home/u", "x y"), "/home/u/x y");
}

}  // namespace
}  // namespace tarvolin::watch_detail
