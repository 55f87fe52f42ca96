#include "tarvolin/platform/MemoryFile.h"

#include <sys/mman.h>

#include <cerrno>
#include <system_error>

namespace tarvolin::platform {

MemoryFile::MemoryFile(const std::string& name) : fd_(::memfd_create(name.c_str(), MFD_CLOEXEC)) {
  if (!fd_.valid()) throw std::system_error(errno, std::generic_category(), "memfd_create");
}

std::filesystem::path MemoryFile::path() const {
  return "/proc/self/fd/" + std::to_string(fd_.get());
}

}  // namespace tarvolin::platform
