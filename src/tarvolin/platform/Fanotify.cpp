#include "tarvolin/platform/Fanotify.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "tarvolin/platform/Precondition.h"
#include "tarvolin/platform/SystemError.h"

namespace tarvolin::platform {

static_assert(Fanotify::kModify == FAN_MODIFY && Fanotify::kAttrib == FAN_ATTRIB &&
              Fanotify::kCloseWrite == FAN_CLOSE_WRITE && Fanotify::kMovedFrom == FAN_MOVED_FROM &&
              Fanotify::kMovedTo == FAN_MOVED_TO && Fanotify::kCreate == FAN_CREATE &&
              Fanotify::kDelete == FAN_DELETE && Fanotify::kQueueOverflow == FAN_Q_OVERFLOW &&
              Fanotify::kOnDirectory == FAN_ONDIR);

namespace {

// Information record types that carry a folder handle (and, for the first, a name after it).
constexpr uint8_t kInfoFolderAndName = 2;  // FAN_EVENT_INFO_TYPE_DFID_NAME
constexpr uint8_t kInfoFolder = 3;         // FAN_EVENT_INFO_TYPE_DFID

// Layout of the information record: header (type, pad, u16 length), fsid (8 bytes), then a
// struct file_handle (u32 byte count, s32 type, bytes), then for names a NUL-terminated name.
constexpr size_t kInfoHeaderBytes = 4;
constexpr size_t kFsidBytes = 8;
constexpr size_t kHandleHeaderBytes = 8;

}  // namespace

size_t parseFanotifyEvents(std::span<const uint8_t> bytes, std::vector<FanotifyEvent>& events) {
  events.clear();
  size_t at = 0;
  while (bytes.size() - at >= sizeof(fanotify_event_metadata)) {
    fanotify_event_metadata meta;
    std::memcpy(&meta, bytes.data() + at, sizeof meta);
    if (meta.event_len < sizeof meta || meta.event_len > bytes.size() - at ||
        meta.metadata_len < sizeof meta || meta.metadata_len > meta.event_len) {
      break;
    }
    FanotifyEvent event;
    event.mask = meta.mask;
    const uint8_t* info = bytes.data() + at + meta.metadata_len;
    const uint8_t* end = bytes.data() + at + meta.event_len;
    while (end - info >= static_cast<ptrdiff_t>(kInfoHeaderBytes)) {
      uint8_t type = info[0];
      uint16_t length;
      std::memcpy(&length, info + 2, sizeof length);
      if (length < kInfoHeaderBytes || length > end - info) break;
      size_t fixed = kInfoHeaderBytes + kFsidBytes + kHandleHeaderBytes;
      if ((type == kInfoFolderAndName || type == kInfoFolder) && length >= fixed &&
          event.handle.empty()) {
        std::memcpy(&event.fileSystemID, info + kInfoHeaderBytes, kFsidBytes);
        uint32_t handleBytes;
        std::memcpy(&handleBytes, info + kInfoHeaderBytes + kFsidBytes, sizeof handleBytes);
        if (handleBytes <= length - fixed) {
          const char* handle = reinterpret_cast<const char*>(info + kInfoHeaderBytes + kFsidBytes);
          event.handle = std::string_view(handle, kHandleHeaderBytes + handleBytes);
          if (type == kInfoFolderAndName) {
            const char* name = handle + kHandleHeaderBytes + handleBytes;
            size_t room = length - fixed - handleBytes;
            event.name = std::string_view(name, strnlen(name, room));
          }
        }
      }
      info += length;
    }
    events.push_back(event);
    at += meta.event_len;
  }
  return at;
}

std::optional<Fanotify> Fanotify::open() {
  int fd = fanotify_init(
      FAN_CLASS_NOTIF | FAN_REPORT_DFID_NAME | FAN_UNLIMITED_QUEUE | FAN_NONBLOCK | FAN_CLOEXEC,
      O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  return Fanotify(FileDescriptor(fd));
}

int Fanotify::markFileSystem(const char* path, uint64_t mask) {
  if (fanotify_mark(fd_.get(), FAN_MARK_ADD | FAN_MARK_FILESYSTEM, mask, AT_FDCWD, path) != 0) {
    return -errno;
  }
  return 0;
}

size_t Fanotify::read(std::span<uint8_t> buffer) {
  TARVOLIN_PRECONDITION(buffer.size() >= 4096);
  for (;;) {
    ssize_t got = ::read(fd_.get(), buffer.data(), buffer.size());
    if (got >= 0) return static_cast<size_t>(got);
    if (errno == EINTR) continue;
    if (errno == EAGAIN) return 0;
    throwErrno("read fanotify");
  }
}

std::optional<FileSystemReference> fileSystemReference(const char* path) {
  FileSystemReference reference;
  // Opened for reading: open_by_handle_at takes no O_PATH descriptor as its mount (EBADF).
  reference.mount = FileDescriptor::tryOpen(path, O_RDONLY | O_DIRECTORY);
  if (!reference.mount.valid()) return std::nullopt;
  struct statfs info;
  if (fstatfs(reference.mount.get(), &info) != 0) return std::nullopt;
  static_assert(sizeof info.f_fsid == sizeof reference.fileSystemID);
  std::memcpy(&reference.fileSystemID, &info.f_fsid, sizeof reference.fileSystemID);
  return reference;
}

std::optional<std::string> pathOfHandle(const FileDescriptor& mount, std::string_view handle) {
  if (handle.size() < kHandleHeaderBytes) return std::nullopt;
  // open_by_handle_at wants an aligned struct file_handle; the event's bytes may not be.
  alignas(file_handle) char copy[kHandleHeaderBytes + MAX_HANDLE_SZ];
  if (handle.size() > sizeof copy) return std::nullopt;
  std::memcpy(copy, handle.data(), handle.size());
  int fd = open_by_handle_at(mount.get(), reinterpret_cast<file_handle*>(copy),
                             O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  FileDescriptor folder(fd);
  // A folder removed while its handle was still cached opens, but has no links left.
  struct stat status;
  if (fstat(fd, &status) != 0 || status.st_nlink == 0) return std::nullopt;
  char link[32];
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  char target[PATH_MAX + 16];
  ssize_t length = readlink(link, target, sizeof target);
  if (length <= 0 || static_cast<size_t>(length) >= sizeof target) return std::nullopt;
  if (target[0] != '/') return std::nullopt;  // not reachable from this process's root
  return std::string(target, static_cast<size_t>(length));
}

}  // namespace tarvolin::platform
