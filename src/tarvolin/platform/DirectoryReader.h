#pragma once
// Lists one directory at a time with getdents64 into a large reusable buffer: name bytes and entry
// type, no per-entry system call except where the file system does not report the type (then one
// fstatat without following links learns it), and no per-entry allocation. While a directory is
// open its entries can also be stat'ed relative to it (`statEntry`), which is how sizes and times
// are read without building paths.
//
// One reader belongs to one thread at a time; keep one per worker and reuse it for many
// directories, so the buffer is allocated once.

#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin::platform {

/// The kinds a directory entry can have. Values are those of the kernel's d_type.
enum class EntryType : uint8_t {
  unknown = 0,
  fifo = 1,
  characterDevice = 2,
  directory = 4,
  blockDevice = 6,
  regular = 8,
  symlink = 10,
  socket = 12,
};

/// One entry as listed. `name` points into the reader's buffer (NUL-terminated there) and is
/// valid only during the callback.
struct DirectoryEntry {
  std::string_view name;
  EntryType type;
};

/// What lstat says about one entry.
struct EntryStatus {
  EntryType type = EntryType::unknown;
  int64_t size = 0;              // st_size
  int64_t modificationTime = 0;  // st_mtim.tv_sec, seconds since 1970 (may be negative)

  friend bool operator==(const EntryStatus&, const EntryStatus&) = default;
};

class DirectoryReader {
 public:
  static constexpr size_t defaultBufferBytes = 128 * 1024;

  explicit DirectoryReader(size_t bufferBytes = defaultBufferBytes);
  ~DirectoryReader();
  DirectoryReader(const DirectoryReader&) = delete;
  DirectoryReader& operator=(const DirectoryReader&) = delete;

  /// Opens `path` (NUL-terminated; follows a link at the path itself, like opendir) and closes
  /// whatever was open before. The empty path is "/". Paths longer than the kernel takes in one
  /// call are opened piece by piece. Returns 0, or the errno of the failure (nothing is open then).
  int open(const char* path);
  /// Opens the subdirectory `name` (one component, NUL-terminated) of the directory `parent`
  /// refers to, without following a link at `name`: a walker that keeps a parent open saves the
  /// kernel the lookup of every component above. Returns 0 or the errno, like `open`.
  int openAt(const FileDescriptor& parent, const char* name);
  /// Hands over the open directory's descriptor (to serve as a parent); nothing is open after.
  FileDescriptor detach();
  /// Closes the open directory, if any.
  void close();
  bool isOpen() const { return fd_ >= 0; }

  /// Calls body(const DirectoryEntry&) for every entry of the open directory except "." and "..",
  /// in the order the file system lists them. An entry of unknown type gets its type from fstatat
  /// (AT_SYMLINK_NOFOLLOW); if that fails too it stays `unknown`. Returns 0, or the errno of a
  /// failed read (the entries before it were delivered). REQUIRES: isOpen(); one pass per open.
  template <typename Body>
  int forEach(Body&& body);

  /// lstat of `name` inside the open directory (fstatat with AT_SYMLINK_NOFOLLOW). `name` must be
  /// NUL-terminated (the names given to forEach are). Nothing when the entry is gone or unreadable.
  std::optional<EntryStatus> statEntry(const char* name) const;

 private:
  // Layout of struct linux_dirent64: u64 ino, s64 off, u16 reclen, u8 type, char name[].
  static constexpr size_t kReclenOffset = 16;
  static constexpr size_t kTypeOffset = 18;
  static constexpr size_t kNameOffset = 19;

  /// One getdents64 call into the buffer: bytes filled, 0 at the end, or -errno.
  long fill();
  EntryType typeOf(const char* name) const;

  std::unique_ptr<uint8_t[]> buffer_;
  size_t capacity_;
  int fd_ = -1;
};

template <typename Body>
int DirectoryReader::forEach(Body&& body) {
  for (;;) {
    long filled = fill();
    if (filled <= 0) return filled == 0 ? 0 : static_cast<int>(-filled);
    const uint8_t* at = buffer_.get();
    const uint8_t* end = at + filled;
    while (at < end) {
      uint16_t reclen;
      std::memcpy(&reclen, at + kReclenOffset, sizeof reclen);
      if (reclen <= kNameOffset || reclen > end - at) break;  // never from a sane kernel
      const char* name = reinterpret_cast<const char*>(at + kNameOffset);
      size_t length = strnlen(name, reclen - kNameOffset);
      auto type = static_cast<EntryType>(at[kTypeOffset]);
      at += reclen;
      if (name[0] == '.' && (length == 1 || (length == 2 && name[1] == '.'))) continue;
      if (length == 0) continue;
      if (type == EntryType::unknown) type = typeOf(name);
      body(DirectoryEntry{std::string_view(name, length), type});
    }
  }
}

}  // namespace tarvolin::platform
