// tvl search, bench and measure on small indexes made in the test: exact lines on standard
// output, the attribute warnings, the summary line and the statuses.

#include <gtest/gtest.h>

#include "support/IndexFixture.h"
#include "support/RunTool.h"
#include "support/TempTree.h"
#include "tarvolin/index/IndexWriter.h"

namespace tarvolin {
namespace {

using testing::runTool;
using testing::TempTree;

class SearchCommandTest : public ::testing::Test {
 protected:
  void writeIndex(const IndexBuilder& builder) {
    IndexWriter::write(builder, {{"local", "/", 0, true}},
                       home_ / "Library/Application Support/Tarvolin/index.bin");
  }
  testing::ToolResult search(const std::vector<std::string>& words) {
    std::vector<std::string> args{"search"};
    args.insert(args.end(), words.begin(), words.end());
    return runTool(args, home_.root().string());
  }
  static std::string masked(const std::string& out) { return testing::maskMilliseconds(out); }
  TempTree home_;
};

TEST_F(SearchCommandTest, PrintsRankedPathsAndTheSummary) {
  writeIndex(testing::buildTree({{"/Users/me/report.md"},
                                 {"/Users/me/old/report-2023.md"},
                                 {"/Users/me/notes.txt"},
                                 {"/Users/me/docs/"}}));
  auto result = search({"report", "ext:md"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(masked(result.out),
            "  /Users/me/report.md\n"
            "  /Users/me/old/report-2023.md\n"
            "\n"
            "2 matches in Tms (showing 2)\n");
}

TEST_F(SearchCommandTest, AttributeWarningsFollowCompleteness) {
  writeIndex(testing::buildTree({{"/big.bin"}, {"/small.bin"}}));
  auto none = search({"size:>1mb"});
  EXPECT_EQ(masked(none.out),
            "\n"
            "  size: and dm: filters need file attributes, which this index does not have yet.\n"
            "  (Attributes are filled by the first scan and by \"Refresh\" -- not by\n"
            "  automatic background rescans -- so results below may be incomplete.)\n"
            "\n"
            "0 matches in Tms (showing 0)\n");

  writeIndex(testing::buildTree({{"/big.bin", 5'000'000, 1}, {"/small.bin"}}));
  auto partial = search({"size:>1mb"});
  EXPECT_EQ(masked(partial.out),
            "  /big.bin\n"
            "\n"
            "  size: and dm: filters are matched against a PARTIALLY attribute-filled index --\n"
            "  results below are real but may be missing some matches.\n"
            "\n"
            "1 matches in Tms (showing 1)\n");
}

TEST_F(SearchCommandTest, ShowsTwentyOfMoreAndCountsAll) {
  std::vector<testing::FixtureEntry> entries;
  for (int i = 0; i < 30; ++i) entries.push_back({"/data/file" + std::to_string(i) + ".txt"});
  writeIndex(testing::buildTree(entries));
  auto result = search({"file"});
  EXPECT_NE(masked(result.out).find("\n30 matches in Tms (showing 20)\n"), std::string::npos);
  EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 20 + 2);
}

TEST_F(SearchCommandTest, ContentNeedlesWithoutANameQueryAreAUsageError) {
  writeIndex(testing::buildTree({{"/a.txt"}}));
  auto result = search({"contains:foo"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "contains: needs something to narrow by, e.g. `.swift contains:foo`\n");
}

TEST_F(SearchCommandTest, BenchAndMeasureReportEveryLine) {
  writeIndex(IndexBuilder());
  auto bench = runTool({"bench", "ignored"}, home_.root().string());
  EXPECT_EQ(bench.status, 0);
  std::string masked = testing::maskMilliseconds(bench.out);
  EXPECT_EQ(masked,
            "Records: 0, name blob: 0MB\n"
            "  a                  0 matches  Tms\n"
            "  report             0 matches  Tms\n"
            "  playground         0 matches  Tms\n"
            "  ext:swift          0 matches  Tms\n"
            "  size:>10mb         0 matches  Tms\n"
            "  ext:swift size     0 matches  Tms\n"
            "  ext:txt | ext:     0 matches  Tms\n"
            "  ext:txt,bin        0 matches  Tms\n"
            "  !ext:swift         0 matches  Tms\n"
            "  /^IMG_\\d+/         0 matches  Tms\n");

  auto measure = runTool({"measure"}, home_.root().string());
  EXPECT_EQ(measure.status, 0);
  masked = testing::maskMilliseconds(measure.out);
  EXPECT_EQ(masked,
            "Records: 0\n"
            "  path:playground matching    Tms\n"
            "    0 matches\n"
            "  'a' matching                Tms\n"
            "    0 matches\n"
            "  'a' ranking (limit 20)      Tms\n");
}

}  // namespace
}  // namespace tarvolin
