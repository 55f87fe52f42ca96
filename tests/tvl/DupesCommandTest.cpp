// tvl dupes: the copies of a path found in the name index, in text and JSON, and the statuses
// for a path the index does not hold, a missing index and usage errors.

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/IndexFixture.h"
#include "support/RunTool.h"
#include "support/TempTree.h"
#include "tarvolin/index/IndexWriter.h"

namespace tarvolin {
namespace {

using testing::runTool;
using testing::TempTree;

class DupesCommandTest : public ::testing::Test {
 protected:
  testing::ToolResult dupes(const std::vector<std::string>& words) {
    std::vector<std::string> args{"dupes"};
    args.insert(args.end(), words.begin(), words.end());
    return runTool(args, home_.root().string());
  }
  void writeIndex(const IndexBuilder& builder) {
    IndexWriter::write(builder, {{"local", "/", 0, true}},
                       home_ / "Library/Application Support/Tarvolin/index.bin");
  }
  TempTree home_;
};

TEST_F(DupesCommandTest, FindsCopiesInAScannedTree) {
  TempTree tree{"a/Notes.txt", "b/notes.TXT", "c/notes.txt/", "d/notes.txt.bak", "e/notes.txt"};
  std::string root = tree.root().string();
  ASSERT_EQ(runTool({"scan", root}, home_.root().string()).status, 0);

  // A scanned index holds no sizes, so every copy is listed in index order, without a size.
  auto result = dupes({root + "/e/./notes.txt"});
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.status, 0);
  std::string a = root + "/a/Notes.txt\n";
  std::string b = root + "/b/notes.TXT\n";
  EXPECT_TRUE(result.out == a + b || result.out == b + a) << result.out;

  // The folder of that name has no copies; a trailing "/" is accepted.
  auto folder = dupes({root + "/c/notes.txt/"});
  EXPECT_EQ(folder.status, 0);
  EXPECT_EQ(folder.out, "");

  auto missing = dupes({root + "/nowhere.txt"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, "");
  EXPECT_NE(missing.err.find(root + "/nowhere.txt is not in the index"), std::string::npos)
      << missing.err;
}

TEST_F(DupesCommandTest, SameSizeFirstWithSizesLimitAndJson) {
  writeIndex(testing::buildTree({{"/x/report.pdf", 999, 1},
                                 {"/y/Report.PDF", 1000, 1},
                                 {"/z/report.pdf", 1000, 1},
                                 {"/w/report.pdf"}}));
  auto text = dupes({"/y/Report.PDF"});
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.out, "/z/report.pdf\t1000\n/x/report.pdf\t999\n/w/report.pdf\n");

  auto limited = dupes({"--limit", "1", "/x/report.pdf"});
  EXPECT_EQ(limited.out, "/y/Report.PDF\t1000\n");

  auto json = dupes({"/y/Report.PDF", "--json", "-n", "2"});
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(nlohmann::json::parse(json.out), nlohmann::json::parse(R"({
    "path": "/y/Report.PDF", "size": 1000,
    "copies": [{"path": "/z/report.pdf", "sameSize": true, "size": 1000},
               {"path": "/x/report.pdf", "sameSize": false, "size": 999}]})"));
}

TEST_F(DupesCommandTest, StatusesForUsageErrorsAndAMissingIndex) {
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {}, {"/a", "/b"}, {"/a", "--limit", "0"}, {"/a", "--limit", "x"}, {"/a", "--bogus"}}) {
    auto result = dupes(words);
    EXPECT_EQ(result.status, 2) << ::testing::PrintToString(words);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("tvl dupes PATH"), std::string::npos) << result.err;
  }
  auto noIndex = dupes({"/a"});
  EXPECT_EQ(noIndex.status, 1);
  EXPECT_NE(noIndex.err.find("No index found at "), std::string::npos) << noIndex.err;

  auto help = dupes({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("tvl dupes PATH [--limit N] [--json]"), std::string::npos);
}

}  // namespace
}  // namespace tarvolin
