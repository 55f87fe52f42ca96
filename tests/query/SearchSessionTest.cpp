#include <gtest/gtest.h>

#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "tarvolin/query/SearchSession.h"

namespace tarvolin {
namespace {

TEST(SearchSessionTest, StackGrowsRevisitsAndRestarts) {
  testing::TempTree tree;
  auto store = testing::writeAndLoad(
      testing::buildTree({{"/foo.md"}, {"/food.txt"}, {"/fox"}, {"/bar"}, {"/foo bar"}}),
      tree / "index.bin");
  SearchSession session(store);
  EXPECT_EQ(session.search("f").size(), 4u);
  EXPECT_EQ(session.search("fo").size(), 4u);
  std::vector<Match> foo = session.search("foo");
  EXPECT_EQ(foo.size(), 3u);
  EXPECT_EQ(session.stackDepth(), 3u);

  std::vector<Match> fo = session.search("fo");
  EXPECT_EQ(fo.size(), 4u);
  EXPECT_EQ(session.stackDepth(), 2u) << "deleting back truncates to the remembered level";

  session.search("foo");
  session.search("foo bar");
  EXPECT_EQ(session.stackDepth(), 1u) << "two words: a fresh full search";
  session.search("fo");
  session.search("ext:md");
  EXPECT_EQ(session.stackDepth(), 1u);

  EXPECT_TRUE(session.search("   ").empty());
  EXPECT_EQ(session.stackDepth(), 0u);
}

TEST(SearchSessionTest, UpdateStoreMakesEveryLevelStale) {
  testing::TempTree tree;
  auto first = testing::writeAndLoad(testing::buildTree({{"/one.txt"}}), tree / "a.bin");
  auto second =
      testing::writeAndLoad(testing::buildTree({{"/one.txt"}, {"/one.md"}}), tree / "b.bin");
  SearchSession session(first);
  EXPECT_EQ(session.search("one").size(), 1u);
  session.setTrigrams(std::make_shared<const TrigramIndex>());
  session.updateStore(second);
  EXPECT_EQ(session.trigrams(), nullptr);
  EXPECT_EQ(session.search("one").size(), 2u) << "recomputed, not revisited";
}

}  // namespace
}  // namespace tarvolin
