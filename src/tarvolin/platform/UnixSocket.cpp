#include "tarvolin/platform/UnixSocket.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "tarvolin/platform/SystemError.h"

namespace tarvolin::platform {

namespace {

sockaddr_un addressFor(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string& text = path.native();
  if (text.size() >= sizeof address.sun_path) {
    throwSystemError(ENAMETOOLONG, "socket path " + text);
  }
  std::memcpy(address.sun_path, text.c_str(), text.size() + 1);
  return address;
}

FileDescriptor newSocket() {
  FileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) throwErrno("socket");
  return fd;
}

// poll on up to two descriptors, retried after signals with the time that is left.
int pollFor(pollfd* fds, nfds_t count, int timeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    int result = ::poll(fds, count, timeoutMs);
    if (result >= 0 || errno != EINTR) return result;
    if (timeoutMs >= 0) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      timeoutMs = static_cast<int>(std::max<int64_t>(left.count(), 0));
    }
  }
}

}  // namespace

uint32_t currentUserID() { return static_cast<uint32_t>(::getuid()); }

StopEvent::StopEvent() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!fd_.valid()) throwErrno("eventfd");
}

void StopEvent::signal() const {
  uint64_t one = 1;
  // A full counter already wakes every waiter; nothing else can fail here.
  [[maybe_unused]] ssize_t written = ::write(fd_.get(), &one, sizeof one);
}

UnixSocket UnixSocket::listen(const std::filesystem::path& path, int backlog) {
  sockaddr_un address = addressFor(path);
  FileDescriptor fd = newSocket();
  // bind creates the file with the process's umask applied; a umask that takes everything from
  // group and others makes it 0600 from its first moment, with no window before a chmod.
  mode_t previous = ::umask(0177);
  int bound = ::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  int bindError = errno;
  ::umask(previous);
  if (bound != 0) throwSystemError(bindError, "bind " + path.string());
  if (::chmod(path.c_str(), 0600) != 0) throwErrno("chmod " + path.string());
  if (::listen(fd.get(), backlog) != 0) throwErrno("listen " + path.string());
  return UnixSocket(std::move(fd));
}

std::optional<UnixSocket> UnixSocket::connect(const std::filesystem::path& path) {
  sockaddr_un address = addressFor(path);
  FileDescriptor fd = newSocket();
  while (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    if (errno == EINTR) continue;
    if (errno == ENOENT || errno == ECONNREFUSED || errno == ENOTSOCK || errno == ENOTDIR) {
      return std::nullopt;
    }
    throwErrno("connect " + path.string());
  }
  return UnixSocket(std::move(fd));
}

std::optional<UnixSocket> UnixSocket::accept(const StopEvent& stop) const {
  for (;;) {
    pollfd fds[2] = {{fd_.get(), POLLIN, 0}, {stop.get(), POLLIN, 0}};
    if (pollFor(fds, 2, -1) < 0) throwErrno("poll");
    if (fds[1].revents != 0) return std::nullopt;
    if (fds[0].revents == 0) continue;
    int fd = ::accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) return UnixSocket(FileDescriptor(fd));
    switch (errno) {
      case EINTR:
      case ECONNABORTED:
      case EAGAIN:
        continue;
      case EMFILE:
      case ENFILE:
      case ENOBUFS:
      case ENOMEM:
        // Out of resources: let connections finish before trying again.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        continue;
      default:
        throwErrno("accept");
    }
  }
}

PeerCredentials UnixSocket::peerCredentials() const {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(fd_.get(), SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
    throwErrno("getsockopt SO_PEERCRED");
  }
  return {credentials.pid, credentials.uid, credentials.gid};
}

UnixSocket::Received UnixSocket::receiveSome(std::span<uint8_t> buffer, int timeoutMs,
                                             size_t& bytesRead) const {
  for (;;) {
    pollfd fds[1] = {{fd_.get(), POLLIN, 0}};
    int ready = pollFor(fds, 1, timeoutMs);
    if (ready < 0) return Received::closed;
    if (ready == 0) return Received::timedOut;
    ssize_t n = ::recv(fd_.get(), buffer.data(), buffer.size(), 0);
    if (n > 0) {
      bytesRead = static_cast<size_t>(n);
      return Received::data;
    }
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    return Received::closed;
  }
}

bool UnixSocket::sendAll(std::span<const uint8_t> bytes, int timeoutMs) const {
  size_t done = 0;
  while (done < bytes.size()) {
    pollfd fds[1] = {{fd_.get(), POLLOUT, 0}};
    int ready = pollFor(fds, 1, timeoutMs);
    if (ready <= 0 || (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL))) return false;
    ssize_t n =
        ::send(fd_.get(), bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

void UnixSocket::shutdown() const { ::shutdown(fd_.get(), SHUT_RDWR); }

}  // namespace tarvolin::platform
