#pragma once
// A wake-up flag another thread can raise (an eventfd), and a wait for either it or one more
// descriptor to become readable. A reader thread that sleeps in `waitForEither` is stopped by
// `raise()` from its owner without signals or timeouts.
//
// `raise` and `fd` may be called from any thread; `waitForEither` and `clear` from one at a time.

#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin::platform {

class Wakeup {
 public:
  /// Throws std::system_error when no eventfd can be made.
  Wakeup();

  /// Sets the flag; stays set until `clear`.
  void raise();
  /// Resets the flag.
  void clear();

  enum class Ready { timeout, source, wakeup };
  /// Waits until `source` is readable or the flag is raised, at most `timeoutMs` milliseconds
  /// (-1: no limit). The flag wins when both are ready. Throws std::system_error.
  Ready waitForEither(int source, int timeoutMs) const;

 private:
  FileDescriptor fd_;
};

}  // namespace tarvolin::platform
