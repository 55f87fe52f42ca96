#pragma once
// What a long-running process needs from the system beyond files: its own resident size, a
// lower priority for background work, an exclusive lock that says "one of us runs", and a
// clean way to wait for SIGINT or SIGTERM.

#include <cstdint>
#include <filesystem>
#include <optional>

#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin::platform {

/// Resident memory of this process in bytes (from /proc/self/statm); 0 when unknown.
uint64_t residentBytes();

/// This process's id.
int64_t processID();

/// True when a process with this id exists (kill with signal 0; a process of another user
/// counts). False for ids that cannot name a process (0 or below).
bool processExists(int64_t pid);

/// Puts the calling thread in the idle I/O class (ioprio_set) and raises its nice value to
/// `niceness`, so background rescans and rewrites yield to everything the user does. Best
/// effort: what the system refuses is left as it was. Threads started afterwards by this
/// thread inherit both.
void lowerThreadPriority(int niceness);

/// An exclusive advisory lock (flock) on one file, created when missing, held while the object
/// lives; the kernel drops it when the process ends, however it ends.
class ExclusiveFileLock {
 public:
  /// The lock if no one holds it now, else nothing. Throws std::system_error when the file
  /// cannot be created or opened.
  static std::optional<ExclusiveFileLock> tryLock(const std::filesystem::path& path);

  ExclusiveFileLock(ExclusiveFileLock&&) noexcept = default;
  ExclusiveFileLock& operator=(ExclusiveFileLock&&) noexcept = default;

 private:
  explicit ExclusiveFileLock(FileDescriptor held) : fd_(std::move(held)) {}

  FileDescriptor fd_;
};

/// Blocks SIGINT and SIGTERM for the creating thread and every thread it starts afterwards, so
/// that they are only ever received by `wait`. Create it on the main thread before any other
/// thread starts; the previous mask comes back when it is destroyed.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  /// Waits up to `timeoutMs` (negative: forever) for SIGINT or SIGTERM; returns the signal
  /// number, or 0 when the time ran out.
  int wait(int timeoutMs) const;

 private:
  uint64_t previous_[16];  // the saved signal mask (a sigset_t's storage)
};

}  // namespace tarvolin::platform
