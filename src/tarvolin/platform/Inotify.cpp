#include "tarvolin/platform/Inotify.h"

#include <errno.h>
#include <limits.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cstring>

#include "tarvolin/platform/Precondition.h"
#include "tarvolin/platform/SystemError.h"

namespace tarvolin::platform {

static_assert(Inotify::kModify == IN_MODIFY && Inotify::kAttrib == IN_ATTRIB &&
              Inotify::kCloseWrite == IN_CLOSE_WRITE && Inotify::kMovedFrom == IN_MOVED_FROM &&
              Inotify::kMovedTo == IN_MOVED_TO && Inotify::kCreate == IN_CREATE &&
              Inotify::kDelete == IN_DELETE && Inotify::kDeleteSelf == IN_DELETE_SELF &&
              Inotify::kMoveSelf == IN_MOVE_SELF && Inotify::kUnmount == IN_UNMOUNT &&
              Inotify::kQueueOverflow == IN_Q_OVERFLOW && Inotify::kIgnored == IN_IGNORED &&
              Inotify::kOnlyDirectory == IN_ONLYDIR && Inotify::kDontFollow == IN_DONT_FOLLOW &&
              Inotify::kExcludeUnlinked == IN_EXCL_UNLINK && Inotify::kIsDirectory == IN_ISDIR);

size_t parseInotifyEvents(std::span<const uint8_t> bytes, std::vector<InotifyEvent>& events) {
  events.clear();
  constexpr size_t kHeader = sizeof(inotify_event);  // wd, mask, cookie, len: 16 bytes
  size_t at = 0;
  while (bytes.size() - at >= kHeader) {
    inotify_event header;
    std::memcpy(&header, bytes.data() + at, kHeader);
    if (header.len > bytes.size() - at - kHeader) break;
    const char* name = reinterpret_cast<const char*>(bytes.data() + at + kHeader);
    events.push_back(InotifyEvent{header.wd, header.mask, header.cookie,
                                  std::string_view(name, strnlen(name, header.len))});
    at += kHeader + header.len;
  }
  return at;
}

Inotify::Inotify(size_t watchCap) : watchCap_(watchCap) {
  int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) throwErrno("inotify_init1");
  fd_ = FileDescriptor(fd);
}

int Inotify::addWatch(const char* path, uint32_t mask) {
  if (live_.size() >= watchCap_) {
    // Refused before the kernel is asked, even for a folder already watched (which would only
    // have returned its watch again): at the cap a needless rescan is the worst outcome.
    return -ENOSPC;
  }
  int watch = inotify_add_watch(fd_.get(), path, mask);
  if (watch < 0) return -errno;
  live_.insert(watch);
  return watch;
}

void Inotify::removeWatch(int watch) {
  if (live_.erase(watch) == 0) return;
  inotify_rm_watch(fd_.get(), watch);
}

size_t Inotify::read(std::span<uint8_t> buffer) {
  TARVOLIN_PRECONDITION(buffer.size() >= sizeof(inotify_event) + NAME_MAX + 1);
  for (;;) {
    ssize_t got = ::read(fd_.get(), buffer.data(), buffer.size());
    if (got >= 0) return static_cast<size_t>(got);
    if (errno == EINTR) continue;
    if (errno == EAGAIN) return 0;
    throwErrno("read inotify");
  }
}

}  // namespace tarvolin::platform
