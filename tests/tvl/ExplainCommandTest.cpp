// tvl explain: on a small scanned tree, a path that is indexed shows its record, and each path
// that is not gets its reason: below a folder a scan never enters, outside the scanned root,
// created after the index was written, missing. Text and --json agree.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <nlohmann/json.hpp>

#include "support/RunTool.h"
#include "support/TempTree.h"

namespace tarvolin {
namespace {

using nlohmann::json;
using testing::runTool;
using testing::TempTree;

class ExplainCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tree_.add("keep/a.txt");
    tree_.add("keep/.hidden/b.txt");
    tree_.add("node_modules/lib/c.js");
    tree_.add("skip.noindex/d.txt");
    tree_.add(".Spotlight-V100/store.db");
    auto scan = runTool({"scan", tree_.root().string()}, home_.root().string());
    ASSERT_EQ(scan.status, 0) << scan.err;
  }
  testing::ToolResult explain(const std::string& path, bool asJson = false) {
    std::vector<std::string> args{"explain", path};
    if (asJson) args.push_back("--json");
    return runTool(args, home_.root().string());
  }
  std::filesystem::path indexPath() const {
    return home_ / "Library/Application Support/Tarvolin/index.bin";
  }
  TempTree home_;
  TempTree tree_;
};

TEST_F(ExplainCommandTest, AnIndexedPathShowsItsRecordAndWhatRanksItLow) {
  std::string path = (tree_ / "keep/.hidden/b.txt").string();
  auto text = explain(path);
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.err, "");
  EXPECT_TRUE(text.out.starts_with(path + "\n  in the index: record ")) << text.out;
  EXPECT_NE(text.out.find(", file\n"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("  size and date not recorded"), std::string::npos);
  EXPECT_NE(text.out.find("scanned root " + tree_.root().string() + ")"), std::string::npos);

  json folder = json::parse(explain((tree_ / "keep/.hidden").string(), true).out);
  EXPECT_EQ(folder["indexed"], true);
  EXPECT_EQ(folder["record"]["kind"], "folder");
  EXPECT_EQ(folder["record"]["flags"], json({"isDirectory", "isHidden"}));
  EXPECT_EQ(folder["record"]["rankedLowerFor"], json({"hidden"}));
  EXPECT_EQ(folder["index"]["roots"], json({tree_.root().string()}));

  json script = json::parse(explain((tree_ / "node_modules/lib/c.js").string(), true).out);
  EXPECT_EQ(script["record"]["rankedLowerFor"], json({"below a \"node_modules\" folder"}));
}

TEST_F(ExplainCommandTest, EachMissingPathGetsItsReason) {
  TempTree elsewhere;
  elsewhere.add("x.txt");
  struct Case {
    std::string path;
    std::string kind;
    std::string folder;
  };
  const std::string root = tree_.root().string();
  const Case cases[] = {
      {root + "/skip.noindex/d.txt", "noindex", root + "/skip.noindex"},
      {root + "/.Spotlight-V100/store.db", "store", root + "/.Spotlight-V100"},
      {(elsewhere / "x.txt").string(), "outsideRoot", root},
      {root + "/keep/never-made.txt", "missing", ""},
  };
  for (const Case& c : cases) {
    auto text = explain(c.path);
    EXPECT_EQ(text.status, 1) << c.path;
    auto asJson = explain(c.path, true);
    EXPECT_EQ(asJson.status, 1) << c.path;
    json result = json::parse(asJson.out);
    EXPECT_EQ(result["indexed"], false) << c.path;
    EXPECT_EQ(result["reason"]["kind"], c.kind) << c.path;
    EXPECT_EQ(result["reason"].value("folder", ""), c.folder) << c.path;
    // The text shows the same sentence.
    std::string sentence = result["reason"]["text"];
    EXPECT_NE(text.out.find("  not in the index: " + sentence + "\n"), std::string::npos)
        << text.out;
  }
}

TEST_F(ExplainCommandTest, AFileMadeAfterTheScanIsNewerThanTheIndex) {
  tree_.add("keep/later.txt");
  // The clock's granularity is a second: put the new file and its folder clearly after it.
  auto later = std::filesystem::last_write_time(indexPath()) + std::chrono::seconds(5);
  std::filesystem::last_write_time(tree_ / "keep/later.txt", later);
  std::filesystem::last_write_time(tree_ / "keep", later);
  json result = json::parse(explain((tree_ / "keep/later.txt").string(), true).out);
  EXPECT_EQ(result["reason"]["kind"], "newerThanIndex");
  EXPECT_NE(result["reason"]["text"].get<std::string>().find(
                "no service is watching: run `tvl scan` again"),
            std::string::npos);
}

TEST_F(ExplainCommandTest, AFolderTheScanCouldNotReadIsNamed) {
  if (geteuid() == 0) GTEST_SKIP() << "root reads every folder";
  tree_.add("locked/inside.txt");
  std::filesystem::permissions(tree_ / "locked", std::filesystem::perms::none);
  json result = json::parse(explain((tree_ / "locked/inside.txt").string(), true).out);
  std::filesystem::permissions(tree_ / "locked", std::filesystem::perms::owner_all);
  EXPECT_EQ(result["reason"]["kind"], "unreadable");
}

TEST_F(ExplainCommandTest, ARemovedFileStaysIndexedAndIsSaidGone) {
  std::filesystem::remove(tree_ / "keep/a.txt");
  auto text = explain((tree_ / "keep/a.txt").string());
  EXPECT_EQ(text.status, 0) << "still in the index";
  EXPECT_NE(text.out.find("  no longer exists"), std::string::npos) << text.out;
}

}  // namespace
}  // namespace tarvolin
