// The progress line of long commands: drawn on standard error when it is a terminal (a
// pseudo-terminal opened by the test), never when it is a pipe, and standard output is the same
// byte for byte either way.

#include <gtest/gtest.h>

#include <cctype>

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
  struct Case {
    std::string command;
    std::string unit;
  };
  const Case cases[] = {{"content", " documents, "}};
  for (const Case& c : cases) {
    TempTree home;
    std::vector<std::string> args{c.command, (tree / "docs").string()};
    testing::TerminalResult onTerminal =
        testing::runWithTerminalStderr(TVL_PATH, args, home.root().string());
    testing::ToolResult onPipe = testing::runTool(args, home.root().string());
    EXPECT_EQ(onTerminal.status, 0) << c.command;
    EXPECT_EQ(onPipe.status, 0) << c.command;

    // "\r  N entries, N/s, Ns" erased to the end of the line, and the line erased at the end.
    EXPECT_NE(numbersMasked(onTerminal.terminal).find("\r  N" + c.unit + "N/s, Ns\033[K"),
              std::string::npos)
        << c.command << ": " << ::testing::PrintToString(onTerminal.terminal);
    EXPECT_TRUE(onTerminal.terminal.ends_with("\r\033[K")) << c.command;
    EXPECT_EQ(onPipe.err, "") << c.command;
    EXPECT_EQ(numbersMasked(onTerminal.out), numbersMasked(onPipe.out)) << c.command;
    EXPECT_EQ(onTerminal.out.find('\r'), std::string::npos) << c.command;
  }
}

}  // namespace
}  // namespace tarvolin
