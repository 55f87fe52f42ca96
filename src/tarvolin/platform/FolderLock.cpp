#include "tarvolin/platform/FolderLock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "tarvolin/platform/SystemError.h"

namespace tarvolin::platform {

namespace {

FileDescriptor openFolder(const std::filesystem::path& folder) {
  return FileDescriptor::open(folder, O_RDONLY | O_DIRECTORY);
}

// flock, retried when a signal interrupts the wait. False only for a busy lock with LOCK_NB.
bool lockHeld(const FileDescriptor& fd, int operation, const std::filesystem::path& folder) {
  while (::flock(fd.get(), operation) != 0) {
    if (errno == EINTR) continue;
    if (errno == EWOULDBLOCK && (operation & LOCK_NB)) return false;
    throwErrno("flock " + folder.string());
  }
  return true;
}

}  // namespace

FolderLock::FolderLock(const std::filesystem::path& folder) : fd_(openFolder(folder)) {
  lockHeld(fd_, LOCK_EX, folder);
}

std::optional<FolderLock> FolderLock::tryLock(const std::filesystem::path& folder) {
  FileDescriptor fd = openFolder(folder);
  if (!lockHeld(fd, LOCK_EX | LOCK_NB, folder)) return std::nullopt;
  return FolderLock(std::move(fd));
}

}  // namespace tarvolin::platform
