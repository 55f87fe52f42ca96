#include "tarvolin/platform/FileDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

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
