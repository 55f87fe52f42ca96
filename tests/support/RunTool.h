#pragma once
// Runs the built tvl binary (or another built program) with arguments and a chosen HOME, capturing
// both output channels and the exit status, for tests of the tool's exact output.

#include <string>
#include <vector>

namespace tarvolin::testing {

struct ToolResult {
  std::string out;
  std::string err;
  int status = -1;
};

ToolResult runTool(const std::vector<std::string>& args, const std::string& home);

/// Runs `program` with `args`; `home`, when not empty, becomes HOME.
ToolResult runProgram(const std::string& program, const std::vector<std::string>& args,
                      const std::string& home = "");

/// `text` with every duration such as "12.34ms" written as "Tms", for comparing reports.
std::string maskMilliseconds(const std::string& text);

}  // namespace tarvolin::testing
