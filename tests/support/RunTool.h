#pragma once
// Runs the built tvl binary with arguments and a chosen HOME, capturing both output channels and
// the exit status, for tests of the tool's exact output.

#include <string>
#include <vector>

namespace tarvolin::testing {

struct ToolResult {
  std::string out;
  std::string err;
  int status = -1;
};

ToolResult runTool(const std::vector<std::string>& args, const std::string& home);

}  // namespace tarvolin::testing
