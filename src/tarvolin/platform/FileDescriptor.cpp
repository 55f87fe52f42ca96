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
