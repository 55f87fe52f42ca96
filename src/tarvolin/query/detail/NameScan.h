#pragma once
// The innermost loops of name matching: find a lower-cased needle in names compared with ASCII
// case folding, grade the first occurrence, and scan ranges of records. Several kernels give
// identical results; the scalar one is the reference the others are tested against.
//
//   scalar    per record, byte by byte
//   sse2      per record, 16 bytes at a time for the needle's first byte in both case forms
//   blobSse2  one pass over the name blob 16 bytes at a time, hits mapped back to records by
//   blobAvx2  their offsets (32 bytes at a time); only for stores whose names lie in record order
//
// All functions only read the store and may run on several threads at once.

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <vector>

#include "tarvolin/index/IndexStore.h"
#include "tarvolin/query/Match.h"
#include "tarvolin/query/detail/AsciiFold.h"

namespace tarvolin::detail {

/// Byte position of the first occurrence of `needle` (already lower-cased) in `name` compared
/// ASCII-folded, or -1. An empty needle never occurs.
int firstOccurrence(std::string_view name, std::string_view needle);

/// Quality of an occurrence at `position`: exact or prefix at 0, wordBoundary after a boundary
/// byte, else substring.
MatchQuality qualityAt(std::string_view name, size_t position, size_t needleLength);

enum class ScanKernel { scalar, sse2, blobSse2, blobAvx2 };

/// The fastest kernel this store and processor allow.
ScanKernel preferredKernel(const IndexStore& store);

/// Decides a record whose name holds the needle: the match to keep for it, or nothing. Called
/// from the scanning threads.
using RecordVerdict = std::function<std::optional<Match>(uint32_t id)>;

/// Appends, in ID order, a Match for every record of [begin, end) that is not deleted (unless
/// `includeDeleted`) and whose name contains `needle` (non-empty, lower-cased), with the first
/// occurrence's quality and offset; with a `verdict`, what the verdict keeps for each such
/// record instead. REQUIRES: begin <= end <= store.count(); for blob kernels,
/// namesInRecordOrder().
void scanRange(const IndexStore& store, uint32_t begin, uint32_t end, std::string_view needle,
               ScanKernel kernel, std::vector<Match>& out, bool includeDeleted = false,
               const RecordVerdict* verdict = nullptr);

}  // namespace tarvolin::detail
