#pragma once
// Runs a built program with its standard error on a pseudo-terminal and its standard output on
// a pipe, for tests of what a command draws only when a person is watching (the progress line)
// and of standard output staying the same either way.

#include <string>
#include <vector>

namespace tarvolin::testing {

struct TerminalResult {
  std::string out;       // standard output (a pipe)
  std::string terminal;  // everything written to the terminal (standard error)
  int status = -1;       // exit status, or 128 + the signal that ended the program
};

/// Runs `program` with `args` (HOME set to `home` when not empty), standard input /dev/null.
TerminalResult runWithTerminalStderr(const std::string& program,
                                     const std::vector<std::string>& args, const std::string& home);

}  // namespace tarvolin::testing
