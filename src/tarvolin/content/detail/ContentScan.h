#pragma once
// The innermost loops of the content index's search: the first occurrence of a needle in one
// document's range of the blob, and the count of line feeds before it. Bytes are compared exactly
// (both sides are lower-cased before they get here). Several kernels give identical results; the
// scalar one is the reference the others are tested against.
//
//   scalar  byte by byte, first byte then the rest
//   sse2    16 candidate starts at a time: the needle's first and last byte must both match
//   avx2    the same, 32 at a time
//
// Pure functions over memory the caller owns: any number of threads may call them.

#include <cstddef>
#include <cstdint>
#include <span>

namespace tarvolin::detail {

enum class ContentScanKernel { scalar, sse2, avx2 };

/// The fastest kernel this processor runs.
ContentScanKernel preferredContentKernel();

inline constexpr size_t notFound = static_cast<size_t>(-1);

/// Position of the first occurrence of `needle` that starts at or after `begin` and ends at or
/// before `end`, or notFound. Vector kernels may read any byte of `blob` past `end` (never past
/// the blob), so a document's neighbours serve as padding. An empty needle never occurs.
/// REQUIRES: begin <= end <= blob.size().
size_t findFirst(std::span<const uint8_t> blob, size_t begin, size_t end,
                 std::span<const uint8_t> needle, ContentScanKernel kernel);

/// Number of line-feed bytes (0x0A) in `bytes`.
size_t countLineFeeds(std::span<const uint8_t> bytes);

}  // namespace tarvolin::detail
