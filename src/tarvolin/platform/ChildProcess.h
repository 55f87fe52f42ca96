#pragma once
// A child process started from an executable, talked to over one stream socket that is its
// stdin and its stdout (stderr goes to /dev/null), with resource limits set before it is sent
// anything. Used to run parsers of hostile input out of process: whatever the child does, the
// parent sees a closed stream, a timeout or bad bytes, never a crash of its own.
//
// The parent's end is a socket rather than a pipe so that writes can pass MSG_NOSIGNAL: a child
// that died makes a send fail with EPIPE instead of raising SIGPIPE in the parent, with no
// process-wide signal disposition touched. The child is started with posix_spawn (no copy of
// the parent's page tables, no code of ours between fork and exec) and limited with prlimit
// before the first request; a limit that cannot be set kills it at once.
//
// One object belongs to one thread at a time. The destructor kills (SIGKILL) and reaps.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin::platform {

class ChildProcess {
 public:
  using Deadline = std::chrono::steady_clock::time_point;

  /// Limits applied to the child; 0 means no limit of that kind.
  struct Limits {
    /// CPU time (RLIMIT_CPU). At the limit the child gets SIGXCPU, one second later SIGKILL.
    uint64_t cpuSeconds = 0;
    /// Virtual address space (RLIMIT_AS): allocations past it fail inside the child.
    uint64_t addressSpaceBytes = 0;
  };

  enum class Transfer {
    done,
    /// The child closed its end (it exited or crashed) before the transfer was done.
    closed,
    timedOut,
    /// Any other failure of the socket.
    failed,
  };

  /// Starts `program` with `arguments` (argv[1] on) under `limits`. Throws std::system_error
  /// when the socket, the spawn or a limit fails (the child is killed and reaped then).
  static ChildProcess spawn(const std::filesystem::path& program,
                            const std::vector<std::string>& arguments, const Limits& limits);

  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Sends every byte to the child's stdin, waiting at most until `deadline`.
  Transfer send(std::span<const uint8_t> bytes, Deadline deadline);
  /// Receives exactly `into.size()` bytes from the child's stdout, waiting at most until
  /// `deadline`.
  Transfer receive(std::span<uint8_t> into, Deadline deadline);

  /// Kills the child (SIGKILL) and waits for it. Does nothing when there is no child.
  void kill();
  /// Closes the child's stdin and waits for it to exit by itself until `deadline`, then kills
  /// it. For a child that was asked to finish.
  void finish(Deadline deadline);

  bool running() const { return pid_ > 0; }
  int pid() const { return pid_; }

 private:
  ChildProcess(int pid, FileDescriptor socket) : pid_(pid), socket_(std::move(socket)) {}
  /// Waits for the socket to become ready for `events` until `deadline`.
  Transfer await(short events, Deadline deadline) const;

  int pid_ = -1;  // a pid_t
  FileDescriptor socket_;
};

}  // namespace tarvolin::platform
