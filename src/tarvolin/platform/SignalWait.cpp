#include "tarvolin/platform/SignalWait.h"

#include <errno.h>
#include <pthread.h>

#include "tarvolin/platform/SystemError.h"

namespace tarvolin::platform {

SignalWait::SignalWait(std::initializer_list<int> signals) {
  sigemptyset(&signals_);
  for (int signal : signals) sigaddset(&signals_, signal);
  int error = pthread_sigmask(SIG_BLOCK, &signals_, &previous_);
  if (error != 0) throwSystemError(error, "pthread_sigmask");
}

SignalWait::~SignalWait() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

int SignalWait::wait() const {
  for (;;) {
    int signal = 0;
    int error = sigwait(&signals_, &signal);
    if (error == 0) return signal;
    if (error != EINTR) throwSystemError(error, "sigwait");
  }
}

}  // namespace tarvolin::platform
