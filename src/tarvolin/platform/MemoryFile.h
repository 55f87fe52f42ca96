#pragma once
// An anonymous file that lives in memory only (memfd): written once through its descriptor, then
// mapped through `path` like any file. It goes away when the descriptor and every mapping of it
// are closed. A long-running process uses it to publish a new version of a file it serves without
// touching the disk.

#include <filesystem>
#include <string>

#include "tarvolin/platform/FileDescriptor.h"

namespace tarvolin::platform {

class MemoryFile {
 public:
  /// A new empty file; `name` shows in /proc for debugging only. Throws std::system_error.
  explicit MemoryFile(const std::string& name);

  const FileDescriptor& descriptor() const { return fd_; }
  /// A path that opens this same file while the descriptor is open ("/proc/self/fd/N").
  std::filesystem::path path() const;

 private:
  FileDescriptor fd_;
};

}  // namespace tarvolin::platform
