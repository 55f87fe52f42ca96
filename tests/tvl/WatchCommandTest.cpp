#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "support/BackgroundTool.h"
#include "support/RunTool.h"
#include "support/TempTree.h"

namespace tarvolin {
namespace {

using namespace std::chrono_literals;
using testing::BackgroundTool;
using testing::TempTree;

// The watches are being added while the tool starts; a file made too early has no event. Keep
// making files, a tenth of a second apart, until a line comes (at most 5 s).
std::optional<std::string> firstLineAfterChanges(BackgroundTool& tool, const TempTree& tree) {
  for (int attempt = 0; attempt < 50; ++attempt) {
    testing::writeFile(tree / ("sub/f" + std::to_string(attempt)), "x");
    if (auto line = tool.readLine(100ms)) return line;
  }
  return std::nullopt;
}

TEST(WatchCommandTest, PrintsChangedFolderAndEndsCleanlyOnInterrupt) {
  TempTree tree{"sub/"};
  BackgroundTool tool(TVL_PATH, {"watch", tree.root().string()});
  auto line = firstLineAfterChanges(tool, tree);
  ASSERT_TRUE(line.has_value()) << tool.errorText();
  EXPECT_EQ(*line, "changed " + (tree / "sub").string());
  tool.signal(SIGINT);
  EXPECT_EQ(tool.wait(5s), std::optional<int>(0));
  EXPECT_EQ(tool.errorText(), "");
}

TEST(WatchCommandTest, JsonLinesAndTerminateEndsWithStatusZero) {
  TempTree home{"sub/"};
  BackgroundTool tool(TVL_PATH, {"watch", "--json", "--latency", "0"}, home.root().string());
  auto line = firstLineAfterChanges(tool, home);  // the default root is the home folder
  ASSERT_TRUE(line.has_value()) << tool.errorText();
  nlohmann::json object = nlohmann::json::parse(*line);
  EXPECT_EQ(object, (nlohmann::json{{"signal", "changed"}, {"path", (home / "sub").string()}}));
  tool.signal(SIGTERM);
  EXPECT_EQ(tool.wait(5s), std::optional<int>(0));
}

TEST(WatchCommandTest, BadOperandsAndOptions) {
  TempTree tree{"file.txt"};
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string err;
  };
  const std::string missing = (tree / "missing").string();
  const std::string file = (tree / "file.txt").string();
  const Case cases[] = {
      {{"watch", missing}, 1, "tvl: " + missing + ": no such folder\n"},
      {{"watch", tree.root().string(), file}, 1, "tvl: " + file + ": not a folder\n"},
      {{"watch", "--latency", "-1"}, 2, ""},
      {{"watch", "--latency", "soon"}, 2, ""},
      {{"watch", "--frequency", "1"}, 2, ""},
  };
  for (const Case& c : cases) {
    auto result = testing::runTool(c.args, tree.root().string());
    EXPECT_EQ(result.status, c.status) << c.args.back();
    EXPECT_EQ(result.out, "");
    if (!c.err.empty()) {
      EXPECT_EQ(result.err, c.err);
    }
    if (c.status == 2) {
      EXPECT_NE(result.err.find("tvl watch [--latency SECONDS]"), std::string::npos);
    }
  }
}

}  // namespace
}  // namespace tarvolin
