#pragma once
// Owning wrapper of a POSIX file descriptor. Move-only; the destructor closes quietly, while
// `close()` reports a failed close (which for a written file can mean lost data).
// One object belongs to one thread at a time.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <span>
#include <vector>

namespace tarvolin::platform {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor();
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(other.release()) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  /// Opens `path` with open(2) flags (O_CLOEXEC is added); throws std::system_error.
  static FileDescriptor open(const std::filesystem::path& path, int flags, int mode = 0644);
  /// Like `open`, but returns an invalid descriptor and leaves errno set on failure.
  static FileDescriptor tryOpen(const std::filesystem::path& path, int flags, int mode = 0644);

  bool valid() const { return fd_ >= 0; }
  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

  /// Reads from the current position until `buffer` is full or the file ends, repeating short
  /// reads and calls interrupted by a signal; returns the bytes read. Throws std::system_error.
  size_t readUpTo(std::span<uint8_t> buffer) const;
  /// Writes every byte, repeating short writes and calls interrupted by a signal.
  /// Throws std::system_error with the errno of the failing call.
  void writeAll(std::span<const uint8_t> bytes) const;
  /// Writes the parts one after the other, as one gathered write where the system allows: the
  /// page cache then holds the file in pieces as large as the whole run permits, not broken at
  /// the parts' seams. Same errors as above.
  void writeAll(std::span<const std::span<const uint8_t>> parts) const;
  /// Flushes the file's data and metadata to the device (fsync). Throws std::system_error.
  void sync() const;
  /// The file's size from fstat. Throws std::system_error.
  uint64_t size() const;
  /// Closes and reports a failure. The descriptor is invalid afterwards either way.
  void close();

 private:
  int fd_ = -1;
};

/// The first `maxBytes` bytes of the regular file at `path` (all of it when shorter), copied into
/// memory with read(2); nothing when it cannot be opened or read, or is not a regular file (a
/// named pipe is refused without waiting for a writer). Unlike a mapping, a copy cannot fault
/// when another process shortens the file while it is read: readers of documents that may be
/// edited at any moment use this.
std::optional<std::vector<uint8_t>> readFilePrefix(const std::filesystem::path& path,
                                                   size_t maxBytes);

}  // namespace tarvolin::platform
