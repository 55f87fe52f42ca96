// tvl scan: the three output lines byte for byte (numbers by pattern), the index it writes, and
// failures to write that keep the previous index.

#include <gtest/gtest.h>

#include <cstdio>
#include <sstream>

#include "support/RunTool.h"
#include "support/TempTree.h"
#include "tarvolin/index/IndexStore.h"

namespace tarvolin {
namespace {

using testing::runTool;
using testing::TempTree;

std::filesystem::path indexPathIn(const TempTree& home) {
  return home / "Library/Application Support/Tarvolin/index.bin";
}

// "  N entries in S.SSs (R/s), D unreadable" with the numbers captured.
struct Summary {
  long long entries = -1, rate = -1, unreadable = -1;
  double seconds = -1;
};

Summary parseSummary(const std::string& line) {
  Summary s;
  char tail[64] = {};
  int fields = std::sscanf(line.c_str(), "  %lld entries in %lfs (%lld/s), %lld unreadable%63s",
                           &s.entries, &s.seconds, &s.rate, &s.unreadable, tail);
  // Rebuilding the line from the numbers checks every other byte, and the two decimals.
  char rebuilt[256];
  std::snprintf(rebuilt, sizeof rebuilt, "  %lld entries in %.2fs (%lld/s), %lld unreadable",
                s.entries, s.seconds, s.rate, s.unreadable);
  if (fields != 4 || line != rebuilt) return Summary{};
  return s;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) result.push_back(line);
  return result;
}

TEST(ScanCommandTest, PrintsThreeLinesAndWritesTheIndex) {
  TempTree home;
  TempTree tree{"a/b/c.txt", "a/.hidden/", "link -> a", "d"};
  std::string root = tree.root().string();
  auto result = runTool({"scan", root, "extra", "words"}, home.root().string());
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  auto out = lines(result.out);
  ASSERT_EQ(out.size(), 3u) << result.out;
  EXPECT_EQ(out[0], "Scanning " + root + "\xE2\x80\xA6");
  Summary summary = parseSummary(out[1]);
  EXPECT_EQ(summary.entries, 6) << out[1];
  EXPECT_EQ(summary.unreadable, 0);
  // The rate is entries over at least a millisecond, truncated.
  EXPECT_LE(summary.rate, 6000);
  EXPECT_EQ(out[2], "  written to " + indexPathIn(home).string());

  IndexStore store(indexPathIn(home));
  ASSERT_EQ(store.header().volumes.size(), 1u);
  EXPECT_EQ(store.header().volumes[0], (VolumeEntry{"local", root, 0, true}));
  EXPECT_EQ(store.header().attrsCompleteness, AttrsCompleteness::none);
  size_t chain = 1;
  for (char c : root) chain += c == '/';
  EXPECT_EQ(store.count(), chain + 6);
}

TEST(ScanCommandTest, ScansTheHomeDirectoryByDefault) {
  TempTree home{"notes/today.txt"};
  auto result = runTool({"scan"}, home.root().string());
  EXPECT_EQ(result.status, 0) << result.err;
  auto out = lines(result.out);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0], "Scanning " + home.root().string() + "\xE2\x80\xA6");
  IndexStore store(indexPathIn(home));
  EXPECT_EQ(store.header().volumes[0].mountPath, home.root().string());
}

TEST(ScanCommandTest, FailureToWriteKeepsThePreviousIndex) {
  TempTree home;
  TempTree tree{"one", "two"};
  ASSERT_EQ(runTool({"scan", tree.root().string()}, home.root().string()).status, 0);
  std::string previous = testing::readFile(indexPathIn(home));

  // The temporary file cannot be created where a folder of its name stands.
  std::filesystem::create_directory(indexPathIn(home).string() + ".tmp");
  tree.add("three");
  auto result = runTool({"scan", tree.root().string()}, home.root().string());
  EXPECT_NE(result.status, 0);
  auto out = lines(result.out);
  ASSERT_EQ(out.size(), 2u) << "no \"written to\" line";
  EXPECT_EQ(result.err, "tvl: could not write the index to " + indexPathIn(home).string() +
                            ": Is a directory\n");
  EXPECT_EQ(testing::readFile(indexPathIn(home)), previous);

  // The index folder cannot be created under a file.
  TempTree other;
  testing::writeFile(other / "Library", "not a folder");
  result = runTool({"scan", tree.root().string()}, other.root().string());
  EXPECT_NE(result.status, 0);
  EXPECT_EQ(lines(result.out).size(), 2u);
  EXPECT_NE(result.err.find("tvl: could not write the index to "), std::string::npos);
}

}  // namespace
}  // namespace tarvolin
