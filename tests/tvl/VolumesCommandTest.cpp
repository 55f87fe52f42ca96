// tvl volumes and tvl estimate on this machine's own mounts: the text and JSON forms agree, the
// figures add up, and usage errors and --help end with the usual statuses.

#include <gtest/gtest.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/RunTool.h"
#include "support/TempTree.h"

namespace tarvolin {
namespace {

using testing::runTool;
using testing::TempTree;

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(VolumesCommandTest, TextAndJsonListTheSameVolumesRootFirst) {
  TempTree home;
  auto json = runTool({"volumes", "--json", "--no-probe"}, home.root().string());
  ASSERT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(json.err, "");
  nlohmann::json volumes = nlohmann::json::parse(json.out);
  ASSERT_TRUE(volumes.is_array());
  ASSERT_FALSE(volumes.empty());
  EXPECT_EQ(volumes[0]["mountPath"], "/");
  EXPECT_EQ(volumes[0]["isBootVolume"], true);
  for (const auto& volume : volumes) {
    EXPECT_FALSE(volume["uuid"].get<std::string>().empty());
    EXPECT_FALSE(volume["name"].get<std::string>().empty());
    EXPECT_TRUE(volume["isInternal"].is_boolean());
    EXPECT_EQ(volume["isTimeMachineDestination"], false);  // --no-probe
    EXPECT_GT(volume.value("totalBytes", int64_t{1}), 0);
  }

  auto text = runTool({"volumes", "--no-probe"}, home.root().string());
  ASSERT_EQ(text.status, 0) << text.err;
  std::vector<std::string> lines = linesOf(text.out);
  ASSERT_EQ(lines.size(), volumes.size() + 1);
  const std::string& header = lines[0];
  ASSERT_TRUE(header.starts_with("MOUNT PATH")) << header;
  size_t nameColumn = header.find("NAME");
  size_t uuidColumn = header.find("UUID");
  ASSERT_NE(uuidColumn, std::string::npos);
  EXPECT_FALSE(header.ends_with(" "));
  for (size_t i = 1; i < lines.size(); ++i) {
    const auto& volume = volumes[i - 1];
    const std::string& line = lines[i];
    // Columns line up under the header (this machine's paths and names are ASCII).
    EXPECT_EQ(line.substr(0, volume["mountPath"].get<std::string>().size()),
              volume["mountPath"].get<std::string>());
    EXPECT_EQ(line.substr(nameColumn, volume["name"].get<std::string>().size()), volume["name"]);
    EXPECT_EQ(line.substr(uuidColumn, volume["uuid"].get<std::string>().size()), volume["uuid"]);
    EXPECT_TRUE(line.ends_with("  no")) << line;
    EXPECT_NE(line.find(volume["isInternal"] == true ? "  internal  " : "  external  "),
              std::string::npos)
        << line;
  }
}

TEST(VolumesCommandTest, EstimateTextAndJsonAddUp) {
  TempTree home;
  auto json = runTool({"estimate", "--json"}, home.root().string());
  nlohmann::json document = nlohmann::json::parse(json.out);
  int64_t sum = 0;
  for (const auto& sample : document["samples"]) {
    EXPECT_GE(sample["usedInodes"].get<int64_t>(), 1);
    EXPECT_EQ(sample["isLocal"], true);
    EXPECT_NE(sample["mountPoint"], "/proc");
    sum += sample["usedInodes"].get<int64_t>();
  }
  if (sum < 1) {
    EXPECT_EQ(json.status, 1);
    EXPECT_TRUE(document["entries"].is_null());
    auto text = runTool({"estimate"}, home.root().string());
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(text.err, "tvl: no estimate: no local file system reports inodes in use\n");
    return;
  }
  ASSERT_EQ(json.status, 0);
  EXPECT_EQ(document["entries"].get<int64_t>(), sum);

  // Counts change between runs (other work creates files), so the text is checked for shape
  // and for its own sum.
  auto text = runTool({"estimate"}, home.root().string());
  ASSERT_EQ(text.status, 0) << text.err;
  std::vector<std::string> lines = linesOf(text.out);
  ASSERT_GE(lines.size(), 2u);
  long long total = 0;
  size_t systems = 0;
  char tail[16] = {};
  ASSERT_EQ(std::sscanf(lines[0].c_str(), "%lld entries, from the inodes in use on %zu local %15s",
                        &total, &systems, tail),
            3)
      << lines[0];
  EXPECT_EQ(systems, lines.size() - 1);
  EXPECT_STREQ(tail, "file");
  EXPECT_TRUE(lines[0].ends_with(systems == 1 ? " file system:" : " file systems:")) << lines[0];
  long long added = 0;
  for (size_t i = 1; i < lines.size(); ++i) {
    long long used = 0;
    int consumed = 0;
    ASSERT_EQ(std::sscanf(lines[i].c_str(), "  %lld  %n", &used, &consumed), 1) << lines[i];
    EXPECT_EQ(lines[i][consumed], '/') << lines[i];
    // Counts are right-aligned: every line puts the mount point in the same column.
    EXPECT_EQ(consumed, static_cast<int>(lines[1].find('/'))) << lines[i];
    added += used;
  }
  EXPECT_EQ(added, total);
}

TEST(VolumesCommandTest, UsageErrorsAndHelp) {
  TempTree home;
  struct Case {
    std::vector<std::string> args;
    std::string err;
  };
  const Case cases[] = {
      {{"volumes", "/"},
       "tvl: unexpected operand \"/\"\nusage: tvl volumes [--no-probe] [--json]\n"},
      {{"volumes", "--probe"},
       "tvl: unknown option --probe\nusage: tvl volumes [--no-probe] [--json]\n"},
      {{"volumes", "--json=yes"},
       "tvl: --json takes no value\nusage: tvl volumes [--no-probe] [--json]\n"},
      {{"estimate", "x"}, "tvl: unexpected operand \"x\"\nusage: tvl estimate [--json]\n"},
      {{"estimate", "--no-probe"},
       "tvl: unknown option --no-probe\nusage: tvl estimate [--json]\n"},
  };
  for (const Case& c : cases) {
    auto result = runTool(c.args, home.root().string());
    EXPECT_EQ(result.status, 2) << c.args[1];
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, c.err);
  }
  for (const char* command : {"volumes", "estimate"}) {
    auto result = runTool({command, "--help"}, home.root().string());
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.out.starts_with(std::string("usage: tvl ") + command)) << result.out;
    EXPECT_NE(result.out.find("--json"), std::string::npos);
    EXPECT_EQ(result.err, "");
  }
}

}  // namespace
}  // namespace tarvolin
