#pragma once
// Returning freed heap memory to the system. The allocator keeps freed blocks for reuse; when a
// phase frees many blocks that nothing will reuse (the scanner's per-job builders once they are
// merged), giving their pages back keeps the resident size at what is actually live.
// Safe to call from any thread.

namespace tarvolin::platform {

/// Releases the whole free pages of every heap arena (glibc malloc_trim).
void releaseFreeMemory();

}  // namespace tarvolin::platform
