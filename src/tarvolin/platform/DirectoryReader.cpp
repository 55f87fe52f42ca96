#include "tarvolin/platform/DirectoryReader.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace tarvolin::platform {

static_assert(static_cast<int>(EntryType::unknown) == DT_UNKNOWN);
static_assert(static_cast<int>(EntryType::fifo) == DT_FIFO);
static_assert(static_cast<int>(EntryType::characterDevice) == DT_CHR);
static_assert(static_cast<int>(EntryType::directory) == DT_DIR);
static_assert(static_cast<int>(EntryType::blockDevice) == DT_BLK);
static_assert(static_cast<int>(EntryType::regular) == DT_REG);
static_assert(static_cast<int>(EntryType::symlink) == DT_LNK);
static_assert(static_cast<int>(EntryType::socket) == DT_SOCK);

namespace {

// The flags opendir uses; O_NONBLOCK keeps a FIFO swapped in for a directory from blocking.
constexpr int kDirectoryFlags = O_RDONLY | O_NONBLOCK | O_DIRECTORY | O_CLOEXEC;

int openRetrying(int base, const char* path, int flags) {
  int fd;
  do {
    fd = ::openat(base, path, flags);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

// Opens a path of PATH_MAX bytes or more in pieces, each below PATH_MAX and cut at a "/", every
// piece relative to the folder the previous one opened. Returns the descriptor or -1 with errno.
int openLongPath(const char* path, size_t length) {
  std::string piece;
  int base = AT_FDCWD;
  size_t at = 0;
  while (at < length) {
    size_t end = length;
    if (length - at >= PATH_MAX) {
      end = at + PATH_MAX - 1;
      while (end > at && path[end] != '/') --end;
    }
    int next = -1;
    if (end == at) {
      errno = ENAMETOOLONG;  // a single name longer than any file system allows
    } else {
      piece.assign(path + at, end - at);
      next = openRetrying(base, piece.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    }
    int saved = errno;
    if (base != AT_FDCWD) ::close(base);
    if (next < 0) {
      errno = saved;
      return -1;
    }
    base = next;
    at = end;
    while (at < length && path[at] == '/') ++at;
  }
  // The pieces were opened as locations only; open the last one for reading.
  int fd = openRetrying(base, ".", kDirectoryFlags);
  int saved = errno;
  ::close(base);
  errno = saved;
  return fd;
}

EntryType typeFromMode(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return EntryType::directory;
    case S_IFREG:
      return EntryType::regular;
    case S_IFLNK:
      return EntryType::symlink;
    case S_IFIFO:
      return EntryType::fifo;
    case S_IFCHR:
      return EntryType::characterDevice;
    case S_IFBLK:
      return EntryType::blockDevice;
    case S_IFSOCK:
      return EntryType::socket;
    default:
      return EntryType::unknown;
  }
}

}  // namespace

DirectoryReader::DirectoryReader(size_t bufferBytes)
    : buffer_(new uint8_t[bufferBytes < 4096 ? 4096 : bufferBytes]),
      capacity_(bufferBytes < 4096 ? 4096 : bufferBytes) {}

DirectoryReader::~DirectoryReader() { close(); }

int DirectoryReader::open(const char* path) {
  close();
  if (path[0] == '\0') path = "/";
  size_t length = std::strlen(path);
  int fd = length < PATH_MAX ? openRetrying(AT_FDCWD, path, kDirectoryFlags)
                             : openLongPath(path, length);
  if (fd < 0) return errno != 0 ? errno : EIO;
  fd_ = fd;
  return 0;
}

int DirectoryReader::openAt(const FileDescriptor& parent, const char* name) {
  close();
  int fd = openRetrying(parent.get(), name, kDirectoryFlags | O_NOFOLLOW);
  if (fd < 0) return errno != 0 ? errno : EIO;
  fd_ = fd;
  return 0;
}

FileDescriptor DirectoryReader::detach() {
  FileDescriptor fd(fd_);
  fd_ = -1;
  return fd;
}

void DirectoryReader::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

long DirectoryReader::fill() {
  ssize_t filled;
  do {
    filled = ::getdents64(fd_, buffer_.get(), capacity_);
  } while (filled < 0 && errno == EINTR);
  return filled < 0 ? -static_cast<long>(errno) : static_cast<long>(filled);
}

EntryType DirectoryReader::typeOf(const char* name) const {
  std::optional<EntryStatus> status = statEntry(name);
  return status ? status->type : EntryType::unknown;
}

std::optional<EntryStatus> DirectoryReader::statEntry(const char* name) const {
  struct stat st;
  if (::fstatat(fd_, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  return EntryStatus{typeFromMode(st.st_mode), static_cast<int64_t>(st.st_size),
                     static_cast<int64_t>(st.st_mtim.tv_sec)};
}

}  // namespace tarvolin::platform
