#include "tarvolin/platform/MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "tarvolin/platform/FileDescriptor.h"
#include "tarvolin/platform/SystemError.h"

namespace tarvolin::platform {

MappedFile MappedFile::open(const std::filesystem::path& path, bool populate) {
  // Non-blocking, so that a named pipe at the path is refused below instead of waiting for a
  // writer; on a regular file the flag changes nothing.
  FileDescriptor fd = FileDescriptor::tryOpen(path, O_RDONLY | O_NONBLOCK);
  if (!fd.valid()) throwErrno("open " + path.string());
  struct stat st;
  if (::fstat(fd.get(), &st) != 0) throwErrno("fstat " + path.string());
  // A directory or a device opens read-only on Linux; neither is a file we can map.
  if (!S_ISREG(st.st_mode)) throwSystemError(EISDIR, "not a regular file: " + path.string());
  uint64_t size = static_cast<uint64_t>(st.st_size);
  if (size == 0) return MappedFile();
  void* data = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd.get(), 0);
  if (data == MAP_FAILED) throwErrno("mmap " + path.string());
  if (populate) {
    // Parts of the file not in the page cache are read in as 2 MiB pieces, mapped by one entry
    // each: the first touch of every 4 KiB page mapped on its own is expensive, on virtual
    // machines most of all. Then the page tables are filled in one call. Both are hints: on
    // kernels without them the pages are found on first use instead.
    ::madvise(data, size, MADV_HUGEPAGE);
    ::madvise(data, size, MADV_POPULATE_READ);
  }
  return MappedFile(static_cast<const uint8_t*>(data), size);
}

MappedFile MappedFile::filled(uint64_t size, const std::function<void(std::span<uint8_t>)>& fill) {
  if (size == 0) {
    fill({});
    return MappedFile();
  }
  void* data = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (data == MAP_FAILED) throwErrno("mmap an anonymous region");
  // Owned from here on: unmapped if `fill` throws.
  MappedFile region(static_cast<const uint8_t*>(data), size);
  // Written in one pass right away: 2 MiB pages take one fault where 4 KiB pages take 512.
  ::madvise(data, size, MADV_HUGEPAGE);
  fill({static_cast<uint8_t*>(data), static_cast<size_t>(size)});
  if (::mprotect(data, size, PROT_READ) != 0) throwErrno("mprotect an anonymous region");
  return region;
}

MappedFile::~MappedFile() { unmap(); }

MappedFile::MappedFile(MappedFile&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
  if (this != &other) {
    unmap();
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

void MappedFile::unmap() {
  if (data_ != nullptr) ::munmap(const_cast<uint8_t*>(data_), size_);
  data_ = nullptr;
  size_ = 0;
}

}  // namespace tarvolin::platform
