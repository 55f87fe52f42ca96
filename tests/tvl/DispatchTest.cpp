// The entry point: help text, exit statuses and the index-opening messages, byte for byte.

#include <gtest/gtest.h>

#include <cstring>

#include "support/IndexFixture.h"
#include "support/RunTool.h"
#include "support/TempTree.h"
#include "tarvolin/index/IndexWriter.h"

namespace tarvolin {
namespace {

using testing::runTool;
using testing::TempTree;

const std::string kHelp =
    "tvl \xE2\x80\x94 Tarvolin engine CLI\n"
    "\n"
    "  tvl scan [path]      Index a subtree (default: home directory)\n"
    "  tvl search <query>   Search the current index\n"
    "  tvl content [dirs]   Build the document content index (default: Documents,\n"
    "                       Desktop, Downloads)\n"
    "  tvl find <text>      Search document CONTENTS, no name term needed\n"
    "  tvl bench            Report index stats and query timings\n"
    "  tvl measure          [diagnostic] Time matching and ranking separately\n"
    "                       for \"path:playground\" and \"a\" against the current\n"
    "                       index. Not a stable product surface -- exists for\n"
    "                       before/after perf comparisons; may change or be\n"
    "                       removed without notice.\n";

TEST(DispatchTest, HelpForNoUnknownOrEmptyCommands) {
  TempTree home;
  const std::vector<std::vector<std::string>> calls = {{},         {"help"}, {"SEARCH", "x"},
                                                       {"search"}, {"find"}, {"--help"}};
  for (const auto& args : calls) {
    auto result = runTool(args, home.root().string());
    EXPECT_EQ(result.out, kHelp) << (args.empty() ? "" : args[0]);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(result.status, 1);
  }
}

std::filesystem::path indexPathIn(const TempTree& home) {
  return home / "Library/Application Support/Tarvolin/index.bin";
}

TEST(DispatchTest, UnusableIndexMessagesGoToStandardErrorWithStatus1) {
  TempTree home;
  std::string path = indexPathIn(home).string();
  for (const char* command : {"search", "bench", "measure"}) {
    auto result = runTool({command, "x"}, home.root().string());
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "No index found at " + path + ". Run `tvl scan` to build one.\n");
    EXPECT_EQ(result.status, 1);
  }

  std::filesystem::create_directories(indexPathIn(home).parent_path());
  IndexWriter::write(IndexBuilder(), {}, indexPathIn(home));
  std::string good = testing::readFile(indexPathIn(home));
  struct Case {
    std::function<void(std::string&)> damage;
    std::string message;
  };
  const Case cases[] = {
      {[](std::string& b) { b[4] = 6; },
       "Index format v6 doesn't match this build (v5). Run `tvl scan` to rebuild it."},
      {[](std::string& b) { b.resize(100); },
       "Index file is incomplete (a previous scan may have been interrupted). Run `tvl scan` to "
       "rebuild it."},
      {[](std::string& b) { b[0] = 'X'; }, "File at " + path + " is not a valid Tarvolin index."},
      {[](std::string& b) { b[24] = 13; },
       "Index references more volumes than this build supports. Run `tvl scan` to rebuild it."},
      {[](std::string& b) { b[16] ^= 1; }, "Index file is corrupt. Run `tvl scan` to rebuild it."},
  };
  for (const Case& c : cases) {
    std::string bytes = good;
    c.damage(bytes);
    testing::writeFile(indexPathIn(home), bytes);
    auto result = runTool({"search", "contains:foo"}, home.root().string());
    EXPECT_EQ(result.err, c.message + "\n");
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.status, 1);
  }
}

}  // namespace
}  // namespace tarvolin
