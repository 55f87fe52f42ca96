#pragma once
// The controlling terminal of an interactive command, opened apart from standard input and
// output (so a picker can draw on it while its standard output is captured by `$(...)`), and
// everything such a command waits for in one place: a key on the terminal, a signal, or a wake-up
// from a worker thread.
//
// The constructor blocks SIGINT, SIGTERM, SIGHUP and SIGWINCH for the calling thread and reads
// them from a signalfd instead, so no asynchronous handler ever runs: the owner learns of a
// signal in `wait` and restores the screen from ordinary code. Threads started afterwards inherit
// the mask. The destructor takes whatever of those signals is still pending (so none is delivered
// with its default action when the mask comes back) and restores the previous mask.
//
// Make it on the main thread before any other thread starts; one object at a time. `wake` may be
// called from any thread; everything else from the owner's thread only.

#include <signal.h>

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string_view>

#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin::platform {

class TerminalDevice {
 public:
  /// The terminal of this process ("/dev/tty", read and write), or nothing when the process has
  /// none. Throws std::system_error when the signals cannot be redirected.
  static std::optional<TerminalDevice> open();

  TerminalDevice(TerminalDevice&& other) noexcept;
  TerminalDevice& operator=(TerminalDevice&&) = delete;
  TerminalDevice(const TerminalDevice&) = delete;
  TerminalDevice& operator=(const TerminalDevice&) = delete;
  ~TerminalDevice();

  /// The stream to hand to a screen library for both input and output.
  FILE* file() const { return file_; }
  int fd() const;

  struct Size {
    int rows = 0;
    int columns = 0;
  };
  /// The window size the terminal reports, or nothing when it reports none.
  std::optional<Size> size() const;

  enum class Ready { timeout, input, signal, wakeup };
  /// Waits up to `timeoutMs` (negative: no limit) for a key, a signal or a wake-up. A signal wins
  /// over a wake-up, and both over input, when several are ready. Throws std::system_error.
  Ready wait(int timeoutMs) const;
  /// The next pending signal (SIGINT, SIGTERM, SIGHUP or SIGWINCH), or 0 when none is pending.
  int takeSignal() const;
  /// Makes the next `wait` return `wakeup`. Any thread; safe from inside worker callbacks.
  void wake() const;
  /// Clears the wake-up flag.
  void clearWakeup() const;
  /// Writes bytes straight to the terminal (past any screen library's buffer), e.g. an escape
  /// sequence the screen library does not know. Best effort.
  void writeRaw(std::string_view bytes) const;

 private:
  TerminalDevice(FILE* file, FileDescriptor signals, FileDescriptor wakeup, const sigset_t& saved);

  FILE* file_ = nullptr;
  FileDescriptor signals_;
  FileDescriptor wakeup_;
  sigset_t saved_;
  bool ownsMask_ = false;
};

/// Cells a code point takes on a terminal: 0 for combining marks, 2 for wide East Asian
/// characters and most emoji, 1 otherwise; -1 for controls and unassigned code points.
int terminalCellWidth(char32_t codePoint);

}  // namespace tarvolin::platform
