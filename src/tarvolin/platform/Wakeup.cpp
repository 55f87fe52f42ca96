#include "tarvolin/platform/Wakeup.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include "tarvolin/platform/SystemError.h"

namespace tarvolin::platform {

Wakeup::Wakeup() {
  int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (fd < 0) throwErrno("eventfd");
  fd_ = FileDescriptor(fd);
}

void Wakeup::raise() {
  uint64_t one = 1;
  // Fails only when the counter would overflow, that is when it is already raised.
  while (::write(fd_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void Wakeup::clear() {
  uint64_t value;
  while (::read(fd_.get(), &value, sizeof value) < 0 && errno == EINTR) {
  }
}

Wakeup::Ready Wakeup::waitForEither(int source, int timeoutMs) const {
  pollfd fds[2] = {{fd_.get(), POLLIN, 0}, {source, POLLIN, 0}};
  int ready = ::poll(fds, 2, timeoutMs);
  // An interrupted wait counts as a timeout: callers wait in a loop that works out the time left.
  if (ready < 0 && errno == EINTR) return Ready::timeout;
  if (ready < 0) throwErrno("poll");
  if (ready == 0) return Ready::timeout;
  if (fds[0].revents != 0) return Ready::wakeup;
  return Ready::source;
}

}  // namespace tarvolin::platform
