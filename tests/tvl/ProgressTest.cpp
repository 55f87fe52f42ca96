// The progress line of long commands: drawn on standard error when it is a terminal (a
// pseudo-terminal opened by the test), never when it is a pipe, and standard output is the same
// byte for byte either way.

#include <gtest/gtest.h>

#include <cctype>
#include <sstream>

#include "support/RunTool.h"
#include "support/TempTree.h"
#include "support/TerminalRun.h"

namespace tarvolin {
namespace {

using testing::TempTree;

// Timings and rates differ from run to run: every run of digits (with its decimals) becomes "N".
std::string numbersMasked(const std::string& text) {
  std::string masked;
  for (size_t i = 0; i < text.size();) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) {
      masked.push_back(text[i++]);
      continue;
    }
    while (i < text.size() && (std::isdigit(static_cast<unsigned char>(text[i])) ||
                               (text[i] == '.' && i + 1 < text.size() &&
                                std::isdigit(static_cast<unsigned char>(text[i + 1]))))) {
      ++i;
    }
    masked.push_back('N');
  }
  return masked;
}

TEST(ProgressTest, DrawnOnATerminalOnlyAndOutputUnchanged) {
  TempTree tree;
  for (int i = 0; i < 40; ++i) tree.add("docs/note" + std::to_string(i) + ".txt", "some words\n");
  // Enough rows for one report of the importer (one per 65,536 rows).
  std::string list = "Filename,Size\n";
  for (int i = 0; i < 70'000; ++i)
    list += "C:\\d" + std::to_string(i % 50) + "\\f" + std::to_string(i) + ",1\n";
  tree.add("list.efu", list);
  struct Case {
    std::vector<std::string> args;  // followed by `operand`
    std::string operand;
    std::string unit;
    size_t comparedLines;  // lines of standard output compared (a new catalog's id differs)
  };
  const Case cases[] = {
      {{"content"}, "docs", " documents, ", 99},
      {{"scan"}, "docs", " entries, ", 99},
      {{"catalog", "add"}, "docs", " entries, ", 1},
      {{"catalog", "efu"}, "list.efu", " rows, ", 0},  // its one line names the new id
  };
  for (const Case& c : cases) {
    TempTree home;
    std::vector<std::string> args = c.args;
    args.push_back((tree / c.operand).string());
    std::string shown = ::testing::PrintToString(args);
    testing::TerminalResult onTerminal =
        testing::runWithTerminalStderr(TVL_PATH, args, home.root().string());
    testing::ToolResult onPipe = testing::runTool(args, home.root().string());
    EXPECT_EQ(onTerminal.status, 0) << shown;
    EXPECT_EQ(onPipe.status, 0) << shown;

    // "\r  N entries, N/s, Ns" erased to the end of the line, and the line erased at the end.
    EXPECT_NE(numbersMasked(onTerminal.terminal).find("\r  N" + c.unit + "N/s, Ns\033[K"),
              std::string::npos)
        << shown << ": " << ::testing::PrintToString(onTerminal.terminal);
    EXPECT_TRUE(onTerminal.terminal.ends_with("\r\033[K")) << shown;
    EXPECT_EQ(onPipe.err, "") << shown;
    auto firstLines = [&c](const std::string& text) {
      std::istringstream in(text);
      std::string kept, line;
      for (size_t i = 0; i < c.comparedLines && std::getline(in, line); ++i) kept += line + "\n";
      return numbersMasked(kept);
    };
    EXPECT_EQ(firstLines(onTerminal.out), firstLines(onPipe.out)) << shown;
    EXPECT_EQ(onTerminal.out.find('\r'), std::string::npos) << shown;
  }
}

}  // namespace
}  // namespace tarvolin
