#include "tarvolin/platform/TerminalDevice.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>
#include <utf8proc.h>

#include "tarvolin/platform/SystemError.h"

namespace tarvolin::platform {

namespace {

sigset_t terminalSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGWINCH}) sigaddset(&set, signal);
  return set;
}

}  // namespace

std::optional<TerminalDevice> TerminalDevice::open() {
  int fd = ::open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return std::nullopt;
  FILE* file = ::fdopen(fd, "r+");
  if (file == nullptr) {
    ::close(fd);
    return std::nullopt;
  }
  sigset_t set = terminalSignals();
  sigset_t saved;
  if (int error = pthread_sigmask(SIG_BLOCK, &set, &saved); error != 0) {
    std::fclose(file);
    throwSystemError(error, "pthread_sigmask");
  }
  int signals = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
  int wakeup = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (signals < 0 || wakeup < 0) {
    int error = errno;
    if (signals >= 0) ::close(signals);
    if (wakeup >= 0) ::close(wakeup);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    std::fclose(file);
    throwSystemError(error, "signalfd");
  }
  return TerminalDevice(file, FileDescriptor(signals), FileDescriptor(wakeup), saved);
}

TerminalDevice::TerminalDevice(FILE* file, FileDescriptor signals, FileDescriptor wakeup,
                               const sigset_t& saved)
    : file_(file),
      signals_(std::move(signals)),
      wakeup_(std::move(wakeup)),
      saved_(saved),
      ownsMask_(true) {}

TerminalDevice::TerminalDevice(TerminalDevice&& other) noexcept
    : file_(other.file_),
      signals_(std::move(other.signals_)),
      wakeup_(std::move(other.wakeup_)),
      saved_(other.saved_),
      ownsMask_(other.ownsMask_) {
  other.file_ = nullptr;
  other.ownsMask_ = false;
}

TerminalDevice::~TerminalDevice() {
  if (ownsMask_) {
    while (takeSignal() != 0) {
    }
    pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
  }
  if (file_ != nullptr) std::fclose(file_);
}

int TerminalDevice::fd() const { return ::fileno(file_); }

std::optional<TerminalDevice::Size> TerminalDevice::size() const {
  winsize window{};
  if (::ioctl(fd(), TIOCGWINSZ, &window) != 0 || window.ws_row == 0 || window.ws_col == 0) {
    return std::nullopt;
  }
  return Size{window.ws_row, window.ws_col};
}

TerminalDevice::Ready TerminalDevice::wait(int timeoutMs) const {
  pollfd fds[3] = {{signals_.get(), POLLIN, 0}, {wakeup_.get(), POLLIN, 0}, {fd(), POLLIN, 0}};
  for (;;) {
    int ready = ::poll(fds, 3, timeoutMs);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0) throwErrno("poll");
    if (ready == 0) return Ready::timeout;
    if (fds[0].revents != 0) return Ready::signal;
    if (fds[1].revents != 0) return Ready::wakeup;
    // A hung-up terminal reads as input: the reader then sees the end of its input.
    return Ready::input;
  }
}

int TerminalDevice::takeSignal() const {
  signalfd_siginfo info{};
  for (;;) {
    ssize_t got = ::read(signals_.get(), &info, sizeof info);
    if (got == static_cast<ssize_t>(sizeof info)) return static_cast<int>(info.ssi_signo);
    if (got < 0 && errno == EINTR) continue;
    return 0;
  }
}

void TerminalDevice::wake() const {
  uint64_t one = 1;
  while (::write(wakeup_.get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void TerminalDevice::clearWakeup() const {
  uint64_t value;
  while (::read(wakeup_.get(), &value, sizeof value) < 0 && errno == EINTR) {
  }
}

void TerminalDevice::writeRaw(std::string_view bytes) const {
  std::fflush(file_);
  while (!bytes.empty()) {
    ssize_t written = ::write(fd(), bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;
    bytes.remove_prefix(static_cast<size_t>(written));
  }
}

int terminalCellWidth(char32_t codePoint) {
  if (codePoint < 0x20 || (codePoint >= 0x7F && codePoint < 0xA0)) return -1;
  if (codePoint > 0x10FFFF) return -1;
  auto cp = static_cast<utf8proc_int32_t>(codePoint);
  const utf8proc_property_t* property = utf8proc_get_property(cp);
  if (property->category == UTF8PROC_CATEGORY_CN) return -1;
  return utf8proc_charwidth(cp);
}

}  // namespace tarvolin::platform
