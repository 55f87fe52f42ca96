#pragma once
// Turns termination signals into an ordinary wait: the constructor blocks the signals for the
// calling thread (threads started afterwards inherit the mask, so none of them is interrupted),
// and `wait` returns the number of the first one that arrives. A command that runs until it is
// interrupted does its work on other threads and waits here, then shuts down normally, with no
// signal handler. The destructor restores the previous mask.
//
// Make it on the main thread before any other thread is started; one object at a time.

#include <signal.h>

#include <initializer_list>

namespace tarvolin::platform {

class SignalWait {
 public:
  /// Blocks `signals` (e.g. {SIGINT, SIGTERM}). Throws std::system_error.
  explicit SignalWait(std::initializer_list<int> signals);
  ~SignalWait();
  SignalWait(const SignalWait&) = delete;
  SignalWait& operator=(const SignalWait&) = delete;

  /// Waits until one of the signals is pending and takes it; returns its number.
  int wait() const;

 private:
  sigset_t signals_;
  sigset_t previous_;
};

}  // namespace tarvolin::platform
