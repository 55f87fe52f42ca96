#pragma once
// Returning freed heap memory to the system. The allocator keeps freed blocks for reuse; when a
// phase frees many blocks that nothing will reuse (the scanner's per-job builders once they are
// merged), giving their pages back keeps the resident size at what is actually live.
// Safe to call from any thread.

#include <cstddef>

namespace tarvolin::platform {

/// Releases the whole free pages of every heap arena (glibc malloc_trim).
void releaseFreeMemory();

/// Makes every heap block of 1 MiB or more a mapping of its own, returned to the system when
/// freed. By default the allocator raises that threshold after large frees, so a long-running
/// process that builds and drops large tables in turn keeps their pages in its heap.
void keepLargeBlocksSeparate();

/// Hints that the untouched memory [data, data + bytes) is about to be filled in full: the
/// kernel may back it with huge pages, one fault per 2 MiB instead of one per 4 KiB. Only the
/// whole pages inside the range are advised; the contents are not changed. Ignored where
/// transparent huge pages are off.
void adviseFillingSoon(const void* data, size_t bytes);

/// Backs the untouched memory [data, data + bytes) with pages now, in one call, ready to be
/// written (MADV_POPULATE_WRITE): on virtual machines a page fault costs several times what the
/// kernel spends filling pages in bulk. A range that can hold huge pages is first advised as by
/// adviseFillingSoon. Only the whole pages inside the range are affected; the contents are not
/// changed. Ignored where the kernel does not offer it.
void prefaultForWriting(void* data, size_t bytes);

/// Fresh zero-filled memory straight from the kernel (an anonymous mapping), for large tables
/// of which a run may touch only a few pages: nothing is written up front, so untouched pages
/// cost nothing, unlike a heap block that must be cleared. Move-only; unmapped when destroyed.
class ZeroedPages {
 public:
  ZeroedPages() = default;
  /// Throws std::bad_alloc when the kernel refuses.
  explicit ZeroedPages(size_t bytes);
  ~ZeroedPages();
  ZeroedPages(ZeroedPages&& other) noexcept;
  ZeroedPages& operator=(ZeroedPages&& other) noexcept;
  ZeroedPages(const ZeroedPages&) = delete;
  ZeroedPages& operator=(const ZeroedPages&) = delete;

  void* data() const { return data_; }
  size_t size() const { return size_; }
  explicit operator bool() const { return data_ != nullptr; }

 private:
  void* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace tarvolin::platform
