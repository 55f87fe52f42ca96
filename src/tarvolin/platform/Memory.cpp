#include "tarvolin/platform/Memory.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <new>
#include <utility>

namespace tarvolin::platform {

void keepLargeBlocksSeparate() {
  // Setting the threshold also turns off its automatic adjustment.
  mallopt(M_MMAP_THRESHOLD, 1 << 20);
}

void releaseFreeMemory() { ::malloc_trim(0); }

void adviseFillingSoon(const void* data, size_t bytes) {
  // Worth it only for ranges that can hold a huge page.
  constexpr uintptr_t kHugePage = uintptr_t{2} << 20;
  if (bytes < kHugePage) return;
  auto page = static_cast<uintptr_t>(::sysconf(_SC_PAGESIZE));
  auto begin = reinterpret_cast<uintptr_t>(data);
  uintptr_t first = (begin + page - 1) & ~(page - 1);
  uintptr_t last = (begin + bytes) & ~(page - 1);
  if (last <= first) return;
  ::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

void prefaultForWriting(void* data, size_t bytes) {
  adviseFillingSoon(data, bytes);
#ifdef MADV_POPULATE_WRITE
  constexpr uintptr_t kPage = 4096;
  uintptr_t first = (reinterpret_cast<uintptr_t>(data) + kPage - 1) & ~(kPage - 1);
  uintptr_t last = (reinterpret_cast<uintptr_t>(data) + bytes) & ~(kPage - 1);
  if (last > first) ::madvise(reinterpret_cast<void*>(first), last - first, MADV_POPULATE_WRITE);
#else
  (void)data;
  (void)bytes;
#endif
}

ZeroedPages::ZeroedPages(size_t bytes) : size_(bytes) {
  if (bytes == 0) return;
  void* data = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (data == MAP_FAILED) throw std::bad_alloc();
  data_ = data;
}

ZeroedPages::~ZeroedPages() {
  if (data_ != nullptr) ::munmap(data_, size_);
}

ZeroedPages::ZeroedPages(ZeroedPages&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)) {}

ZeroedPages& ZeroedPages::operator=(ZeroedPages&& other) noexcept {
  if (this != &other) {
    if (data_ != nullptr) ::munmap(data_, size_);
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

}  // namespace tarvolin::platform
