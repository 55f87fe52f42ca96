#include "tarvolin/platform/FileDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <vector>

#include "tarvolin/platform/SystemError.h"

namespace tarvolin::platform {

FileDescriptor::~FileDescriptor() {
  if (fd_ >= 0) ::close(fd_);
}

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = other.release();
  }
  return *this;
}

FileDescriptor FileDescriptor::tryOpen(const std::filesystem::path& path, int flags, int mode) {
  int fd;
  do {
    fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return FileDescriptor(fd);
}

size_t FileDescriptor::readUpTo(std::span<uint8_t> buffer) const {
  size_t done = 0;
  while (done < buffer.size()) {
    ssize_t n =
        ::read(fd_, buffer.data() + done, std::min<size_t>(buffer.size() - done, SSIZE_MAX));
    if (n < 0) {
      if (errno == EINTR) continue;
      throwErrno("read");
    }
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return done;
}

std::optional<std::vector<uint8_t>> readFilePrefix(const std::filesystem::path& path,
                                                   size_t maxBytes) {
  FileDescriptor fd = FileDescriptor::tryOpen(path, O_RDONLY | O_NONBLOCK);
  if (!fd.valid()) return std::nullopt;
  struct stat st;
  if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return std::nullopt;
  // The size is a hint: the file may grow or shrink while it is read.
  size_t expected = std::min<size_t>(static_cast<size_t>(std::max<off_t>(st.st_size, 0)), maxBytes);
  std::vector<uint8_t> bytes(expected);
  try {
    bytes.resize(fd.readUpTo(bytes));
    if (bytes.size() == expected && expected < maxBytes) {
      // Grown since fstat: take what fits.
      uint8_t more[4096];
      for (size_t n;
           bytes.size() < maxBytes &&
           (n = fd.readUpTo({more, std::min(sizeof more, maxBytes - bytes.size())})) > 0;) {
        bytes.insert(bytes.end(), more, more + n);
      }
    }
  } catch (const std::system_error&) {
    return std::nullopt;
  }
  return bytes;
}

FileDescriptor FileDescriptor::open(const std::filesystem::path& path, int flags, int mode) {
  FileDescriptor fd = tryOpen(path, flags, mode);
  if (!fd.valid()) throwErrno("open " + path.string());
  return fd;
}

void FileDescriptor::writeAll(std::span<const uint8_t> bytes) const {
  const uint8_t* next = bytes.data();
  size_t left = bytes.size();
  while (left > 0) {
    ssize_t written = ::write(fd_, next, left);
    if (written < 0) {
      if (errno == EINTR) continue;
      throwErrno("write");
    }
    next += written;
    left -= static_cast<size_t>(written);
  }
}

void FileDescriptor::writeAll(std::span<const std::span<const uint8_t>> parts) const {
  std::vector<iovec> pending;
  for (std::span<const uint8_t> part : parts) {
    if (!part.empty()) pending.push_back({const_cast<uint8_t*>(part.data()), part.size()});
  }
  size_t first = 0;
  while (first < pending.size()) {
    int count = static_cast<int>(std::min<size_t>(pending.size() - first, IOV_MAX));
    ssize_t written = ::writev(fd_, pending.data() + first, count);
    if (written < 0) {
      if (errno == EINTR) continue;
      throwErrno("write");
    }
    // Skip what was written: whole parts, then the front of a part written in part.
    auto left = static_cast<size_t>(written);
    while (first < pending.size() && left >= pending[first].iov_len)
      left -= pending[first++].iov_len;
    if (left > 0) {
      pending[first].iov_base = static_cast<uint8_t*>(pending[first].iov_base) + left;
      pending[first].iov_len -= left;
    }
  }
}

void FileDescriptor::sync() const {
  while (::fsync(fd_) != 0) {
    if (errno != EINTR) throwErrno("fsync");
  }
}

uint64_t FileDescriptor::size() const {
  struct stat st;
  if (::fstat(fd_, &st) != 0) throwErrno("fstat");
  return static_cast<uint64_t>(st.st_size);
}

void FileDescriptor::close() {
  int fd = release();
  if (fd >= 0 && ::close(fd) != 0 && errno != EINTR) throwErrno("close");
}

}  // namespace tarvolin::platform
