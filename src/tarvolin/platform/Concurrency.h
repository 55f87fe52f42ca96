#pragma once
// Parallel iteration for the engines: the scanner's jobs, the filler's workers, the matcher's
// shards. The body is called from several threads at once and must be safe for that.

#include <cstddef>
#include <functional>

namespace tarvolin::platform {

/// Number of processors this process may run on (sched_getaffinity), at least 1.
size_t activeProcessorCount();

/// Calls body(i) for every i in [0, count), on min(count, activeProcessorCount()) threads
/// including the caller, handing out indices in increasing order; returns when all are done.
/// An exception from a body is rethrown on the caller's thread after all threads finished.
/// The other threads are kept parked between calls. A call made from inside a body runs on the
/// calling thread alone.
void concurrentPerform(size_t count, const std::function<void(size_t)>& body);

}  // namespace tarvolin::platform
