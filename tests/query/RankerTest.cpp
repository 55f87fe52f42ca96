#include <gtest/gtest.h>

#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "tarvolin/query/Ranker.h"

namespace tarvolin {
namespace {

class RankerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    store_ = testing::writeAndLoad(testing::buildTree({
                                       {"/a/b/file.txt"},               // depth 3
                                       {"/a/b/.file.txt"},              // hidden
                                       {"/x/node_modules/y/file.txt"},  // demoted by an ancestor
                                       {"/Tools.app/", std::nullopt, 0, RecordFlags::isApp},
                                       {"/Tools.app/c/file.txt"},  // inside an application
                                       {"/a/Build/file.txt"},      // case-sensitive demotion
                                       {"/a/b/build"},             // own name never demotes
                                   }),
                                   tree_ / "index.bin");
  }
  uint32_t id(const std::string& path) { return *testing::findRecord(*store_, path); }
  Match at(const std::string& path, MatchQuality quality = MatchQuality::substring,
           int32_t offset = 0) {
    return Match{id(path), quality, offset};
  }
  testing::TempTree tree_;
  std::shared_ptr<const IndexStore> store_;
};

TEST_F(RankerTest, ScoreTerms) {
  Ranker ranker(store_);
  EXPECT_EQ(ranker.score(at("/a/b/file.txt")), -30);
  EXPECT_EQ(ranker.score(at("/a/b/.file.txt")), -230);
  EXPECT_EQ(ranker.score(at("/x/node_modules/y/file.txt")), -5040);
  EXPECT_EQ(ranker.score(at("/Tools.app/c/file.txt")), -40030);
  EXPECT_EQ(ranker.score(at("/Tools.app")), 50000 - 10);
  EXPECT_EQ(ranker.score(at("/a/Build/file.txt")), -30);
  EXPECT_EQ(ranker.score(at("/a/b/build")), -30);
  EXPECT_EQ(ranker.score(at("/a/b/file.txt", MatchQuality::substring, 250)), -130);
}

TEST_F(RankerTest, BucketsComeBeforeScores) {
  Ranker ranker(store_);
  std::vector<Match> matches;
  for (int i = 0; i < 10; ++i) matches.push_back(at("/a/b/file.txt", MatchQuality::prefix, i));
  for (int i = 0; i < 3; ++i)
    matches.push_back(at("/x/node_modules/y/file.txt", MatchQuality::exact, i));
  std::vector<RankedResult> ranked = ranker.rank(matches, 5);
  ASSERT_EQ(ranked.size(), 5u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(ranked[i].match.quality, MatchQuality::exact);
    EXPECT_EQ(ranked[i].match.matchOffset, i) << "equal-quality bucket ordered by score";
  }
  EXPECT_EQ(ranked[3].match.matchOffset, 0);
  EXPECT_EQ(ranked[4].match.matchOffset, 1);
  EXPECT_TRUE(ranker.rank(matches, 0).empty());
  EXPECT_TRUE(ranker.rank(matches, -1).empty());
  EXPECT_TRUE(ranker.rank({}, 5).empty());
}

TEST_F(RankerTest, AppsAtAWordBoundaryRankWithExactMatches) {
  Ranker ranker(store_);
  std::vector<Match> matches = {at("/a/b/file.txt", MatchQuality::prefix),
                                at("/Tools.app", MatchQuality::wordBoundary),
                                at("/a/b/build", MatchQuality::exact)};
  std::vector<RankedResult> ranked = ranker.rank(matches, 3);
  ASSERT_EQ(ranked.size(), 3u);
  EXPECT_EQ(ranked[0].match.id, id("/Tools.app"));
  EXPECT_EQ(ranked[0].match.quality, MatchQuality::wordBoundary) << "the match keeps its quality";
  EXPECT_EQ(ranked[1].match.id, id("/a/b/build"));
  EXPECT_EQ(ranked[2].match.id, id("/a/b/file.txt"));
}

TEST_F(RankerTest, EqualScoresKeepTheMatcherOrder) {
  Ranker ranker(store_);
  std::vector<Match> matches = {at("/a/b/build"), at("/a/b/file.txt"), at("/a/Build/file.txt")};
  std::vector<RankedResult> ranked = ranker.rank(matches, 2);
  ASSERT_EQ(ranked.size(), 2u);
  EXPECT_EQ(ranked[0].match.id, id("/a/b/build"));
  EXPECT_EQ(ranked[1].match.id, id("/a/b/file.txt"));
}

// The folder memo starts small and moves to a flat table when many folders have been seen, or
// at once for a ranking of many matches. Every way must give every record the same score.
TEST(RankerMemoTest, EveryMemoFormGivesTheSameScores) {
  std::vector<testing::FixtureEntry> entries;
  for (int top = 0; top < 150; ++top) {
    std::string base = "/t" + std::to_string(top) + (top % 7 == 0 ? "/node_modules" : "");
    RecordFlags flags = top % 11 == 0 ? RecordFlags::isApp : RecordFlags();
    entries.push_back({base + "/Tool.app/", std::nullopt, 0, flags});
    for (int sub = 0; sub < 120; ++sub)
      entries.push_back({base + "/Tool.app/s" + std::to_string(sub) + "/f"});
  }
  testing::TempTree tree;
  auto store = testing::writeAndLoad(testing::buildTree(entries), tree / "index.bin");
  ASSERT_GT(store->count(), 36000u);

  std::vector<Match> all;
  for (uint32_t id = 0; id < store->count(); ++id)
    all.push_back(Match{id, MatchQuality::substring, 0});
  Ranker flatFromTheStart(store);
  ASSERT_EQ(flatFromTheStart.rank(all, 1).size(), 1u);
  Ranker growing(store);  // one match at a time: small table first, flat after many folders
  for (uint32_t id = 0; id < store->count(); ++id) {
    int32_t expected = flatFromTheStart.score(all[id]);
    ASSERT_EQ(growing.score(all[id]), expected) << "record " << id;
    ASSERT_EQ(growing.score(all[id]), expected) << "record " << id << ", remembered";
  }
  EXPECT_EQ(growing.rank(all, 20), flatFromTheStart.rank(all, 20));

  // The score table gives the same scores and rankings, offsets and app buckets included.
  Ranker lookingUp(store);
  lookingUp.useScores(Ranker::scoresOf(store));
  ASSERT_TRUE(lookingUp.hasScores());
  std::vector<Match> graded;
  for (uint32_t id = 0; id < store->count(); ++id) {
    graded.push_back(Match{id, static_cast<MatchQuality>(id % 4), static_cast<int32_t>(id % 150)});
    ASSERT_EQ(lookingUp.score(graded.back()), flatFromTheStart.score(graded.back())) << id;
  }
  EXPECT_EQ(lookingUp.rank(graded, 50), flatFromTheStart.rank(graded, 50));
  // Enough matches to be ranked in shards: the shards' best, merged, keep every tie in the
  // order of the matches, as one pass does (the second half holds the same records again).
  std::vector<Match> many = graded;
  for (uint32_t id = store->count(); id-- > 0;) {
    many.push_back(
        Match{id, static_cast<MatchQuality>((id + 1) % 5), static_cast<int32_t>(id * 7 % 130)});
  }
  ASSERT_GT(many.size(), 65536u);
  for (int64_t limit : {1, 50, 3000}) {
    EXPECT_EQ(lookingUp.rank(many, limit), flatFromTheStart.rank(many, limit)) << limit;
  }
  EXPECT_THROW(Ranker(store).useScores(std::make_shared<const std::vector<int32_t>>(3)),
               std::invalid_argument);
}

// An application nested so deep that its penalties outweigh its bonus: its score no longer
// tells it from other records, so the store gets no table and rankings walk folders.
TEST(RankerMemoTest, NoScoreTableWhenAScoreCannotTellAnApplication) {
  std::string path;
  for (int depth = 0; depth < 5100; ++depth) path += "/d";
  std::vector<testing::FixtureEntry> entries = {
      {path + "/Deep.app/", std::nullopt, 0, RecordFlags::isApp}};
  testing::TempTree tree;
  auto store = testing::writeAndLoad(testing::buildTree(entries), tree / "index.bin");
  EXPECT_EQ(Ranker::scoresOf(store), nullptr);
}

}  // namespace
}  // namespace tarvolin
