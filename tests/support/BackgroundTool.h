#pragma once
// A tool started in the background for tests of commands that run until interrupted: read its
// standard output line by line with a deadline, send it a signal, collect its exit status. The
// destructor kills (SIGKILL) and reaps a child still running.

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace tarvolin::testing {

class BackgroundTool {
 public:
  /// Starts `program` with `args`; `home`, when not empty, becomes HOME. Standard error is
  /// collected apart. Throws std::runtime_error when the child cannot be started.
  BackgroundTool(const std::string& program, const std::vector<std::string>& args,
                 const std::string& home = "");
  ~BackgroundTool();
  BackgroundTool(const BackgroundTool&) = delete;
  BackgroundTool& operator=(const BackgroundTool&) = delete;

  /// The next line of standard output (without its newline), or nothing when none came within
  /// `timeout` or the output ended.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout);
  /// Sends `signal` to the child.
  void signal(int signal);
  /// Waits up to `timeout` for the child to exit; its status (128 + signal when killed by one),
  /// or nothing when it is still running.
  std::optional<int> wait(std::chrono::milliseconds timeout);
  /// Whatever the child wrote to standard error so far (complete once it has exited).
  std::string errorText();

 private:
  void drainError();

  int pid_ = -1;
  int out_ = -1;
  int err_ = -1;
  std::string pending_;  // output read but not yet returned as a line
  std::string error_;
  std::optional<int> status_;
};

}  // namespace tarvolin::testing
