#pragma once
// An exclusive advisory lock (flock) on a folder, held while the object lives. Writers that share
// a temporary file name in one folder (the index writer's "index.bin.tmp") take it around their
// write, so two processes, or two threads, never write the same temporary file at once: the
// second waits for the first to rename its file into place. Readers take no lock; they see the
// old file or the new one whole. Locks are per open of the folder: a thread that already holds
// the lock of a folder must not take it again (it would wait for itself).

#include <filesystem>
#include <optional>

#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin::platform {

class FolderLock {
 public:
  /// Waits until the lock of `folder` is ours. Throws std::system_error (the folder cannot be
  /// opened, or the file system refuses locks).
  explicit FolderLock(const std::filesystem::path& folder);
  /// The lock if it is free now, else nothing. Throws like the constructor.
  static std::optional<FolderLock> tryLock(const std::filesystem::path& folder);

  FolderLock(FolderLock&&) noexcept = default;
  FolderLock& operator=(FolderLock&&) noexcept = default;

 private:
  explicit FolderLock(FileDescriptor held) : fd_(std::move(held)) {}

  FileDescriptor fd_;  // closing it releases the lock
};

}  // namespace tarvolin::platform
