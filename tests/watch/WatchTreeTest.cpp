#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <string>

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
  EXPECT_EQ(tree.path(4), std::nullopt);
  EXPECT_EQ(tree.path(5), std::nullopt);
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
  EXPECT_EQ(tree.path(1), std::nullopt);
  EXPECT_EQ(tree.size(), 1u);
  tree.erase(2);
  tree.erase(2);
  EXPECT_EQ(tree.size(), 0u);
}

TEST(WatchTreeTest, RenameIntoOrOverItsOwnFamily) {
  WatchTree tree;
  tree.set(1, "/a");
  tree.set(2, "/a/b");
  tree.rename("/a", "/a/b");  // the old /a/b moves along, one level deeper
  EXPECT_EQ(*tree.path(1), "/a/b");
  EXPECT_EQ(*tree.path(2), "/a/b/b");
  tree.rename("/a/b/b", "/a");  // /a and everything else under it was replaced
  EXPECT_EQ(*tree.path(2), "/a");
  EXPECT_EQ(tree.path(1), std::nullopt);
  EXPECT_EQ(tree.size(), 1u);
  tree.rename("/nowhere", "/a");  // nothing moves, the destination is still stale
  EXPECT_EQ(tree.size(), 0u);
}

// Forgetting a folder's watch keeps the watches below it, and a folder whose watch and children
// are gone leaves nothing behind that a later lookup could find.
TEST(WatchTreeTest, EraseKeepsWhatLiesBelow) {
  WatchTree tree;
  tree.set(1, "/r/a");
  tree.set(2, "/r/a/b/c");
  tree.erase(1);
  EXPECT_EQ(*tree.path(2), "/r/a/b/c");
  EXPECT_EQ(tree.subtree("/r/a"), std::vector<int>{2});
  tree.erase(2);
  EXPECT_TRUE(tree.subtree("/r").empty());
  tree.set(3, "/r/a/b");
  EXPECT_EQ(*tree.path(3), "/r/a/b");
  EXPECT_EQ(tree.subtree("/r/a/b/c"), std::vector<int>{});
}

// The old map of whole paths, kept as the reference: the tree must agree with it on any sequence.
class PathMap {
 public:
  void set(int watch, const std::string& path) {
    erase(watch);
    if (auto old = byPath_.find(path); old != byPath_.end()) byWatch_.erase(old->second);
    byPath_[path] = watch;
    byWatch_[watch] = path;
  }
  void erase(int watch) {
    if (auto found = byWatch_.find(watch); found != byWatch_.end()) {
      byPath_.erase(found->second);
      byWatch_.erase(found);
    }
  }
  std::optional<std::string> path(int watch) const {
    auto found = byWatch_.find(watch);
    return found == byWatch_.end() ? std::nullopt : std::optional(found->second);
  }
  std::vector<int> subtree(const std::string& path) const {
    std::vector<int> watches;
    for (const auto& [folder, watch] : byPath_) {
      if (folder == path || folder.starts_with(path == "/" ? "/" : path + "/")) {
        watches.push_back(watch);
      }
    }
    return watches;
  }
  void rename(const std::string& from, const std::string& to) {
    if (from == to) return;
    std::vector<std::pair<int, std::string>> moved;
    for (int watch : subtree(from))
      moved.emplace_back(watch, to + byWatch_[watch].substr(from.size()));
    for (const auto& [watch, path] : moved) erase(watch);
    for (int watch : subtree(to)) erase(watch);
    for (const auto& [watch, path] : moved) set(watch, path);
  }
  size_t size() const { return byWatch_.size(); }

 private:
  std::map<std::string, int> byPath_;
  std::map<int, std::string> byWatch_;
};

TEST(WatchTreeTest, AgreesWithAMapOfWholePathsOnRandomSequences) {
  const std::vector<std::string> paths = {"/",    "/a",     "/a/b",   "/a/b/c",  "/a/c",
                                          "/b",   "/b/a",   "/b/a/b", "/c",      "/a-b",
                                          "/a b", "/a/b-c", "/b/c/a", "/c/a/b/c"};
  std::mt19937 random(7);
  auto pick = [&] { return paths[random() % paths.size()]; };
  for (int round = 0; round < 200; ++round) {
    WatchTree tree;
    PathMap reference;
    for (int step = 0; step < 60; ++step) {
      int watch = static_cast<int>(random() % 12);
      switch (random() % 4) {
        case 0:
        case 1: {
          std::string path = pick();
          tree.set(watch, path);
          reference.set(watch, path);
          break;
        }
        case 2:
          tree.erase(watch);
          reference.erase(watch);
          break;
        default: {
          std::string from = pick(), to = pick();
          if (from == "/" || to == "/") break;  // "/" cannot move nor be replaced
          tree.rename(from, to);
          reference.rename(from, to);
        }
      }
      ASSERT_EQ(tree.size(), reference.size()) << "round " << round << " step " << step;
      for (int each = 0; each < 12; ++each) {
        ASSERT_EQ(tree.path(each), reference.path(each)) << "round " << round << " step " << step;
      }
      for (const std::string& path : paths) {
        ASSERT_EQ(sorted(tree.subtree(path)), sorted(reference.subtree(path))) << path;
      }
    }
  }
}

TEST(WatchTreeTest, JoinPathDoesNotDoubleTheRootSlash) {
  EXPECT_EQ(joinPath("/", "etc"), "/etc");
  EXPECT_EQ(joinPath("/home/u", "x y"), "/home/u/x y");
}

}  // namespace
}  // namespace tarvolin::watch_detail
