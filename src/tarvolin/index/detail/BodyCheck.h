#pragma once
// The one pass the store makes over an index body: the checksum, and with it the record checks
// (every parent link inside the record table or the top marker; every name inside the blob), and
// whether any record is marked deleted.
// The checks ride in the checksum's stripe loop on bytes it has just read, so they cost next to
// nothing beside it.

#include <cstdint>
#include <span>

namespace tarvolin::detail {

struct BodyCheck {
  uint64_t checksum;        // FastHash64 of the whole body
  bool linksInside;         // every parent link and every name stays inside the file
  bool namesInRecordOrder;  // each name starts at or after the end of the one before
  bool anyDeleted;          // some record is marked deleted
};

enum class CheckKernel { scalar, avx2 };

/// `body` is the record table of `count` records followed by the blob of `blobLength` bytes.
/// `avx2` needs a processor that has it.
BodyCheck checkBody(std::span<const uint8_t> body, uint32_t count, uint32_t blobLength,
                    CheckKernel kernel);

}  // namespace tarvolin::detail
