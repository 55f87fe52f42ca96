#pragma once
// Returning freed heap memory to the system. The allocator keeps freed blocks for reuse; when a
// phase frees many blocks that nothing will reuse (the scanner's per-job builders once they are
// merged), giving their pages back keeps the resident size at what is actually live.
// Safe to call from any thread.

#include <cstddef>

namespace tarvolin::platform {

/// Releases the whole free pages of every heap arena (glibc malloc_trim).
void releaseFreeMemory();

/// Hints that the untouched memory [data, data + bytes) is about to be filled in full: the
/// kernel may back it with huge pages, one fault per 2 MiB instead of one per 4 KiB. Only the
/// whole pages inside the range are advised; the contents are not changed. Ignored where
/// transparent huge pages are off.
void adviseFillingSoon(const void* data, size_t bytes);

/// Backs the untouched memory [data, data + bytes) with pages now, in one call, ready to be
/// written (MADV_POPULATE_WRITE): on virtual machines a page fault costs several times what the
/// kernel spends filling pages in bulk. Only the whole pages inside the range are affected; the
/// contents are not changed. Ignored where the kernel does not offer it.
void prefaultForWriting(void* data, size_t bytes);

}  // namespace tarvolin::platform
