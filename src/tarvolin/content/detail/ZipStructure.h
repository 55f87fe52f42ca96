#pragma once
// The pieces of the ZIP format the reader uses, apart so that tests can reach them: the end
// record's position, bounds-checked little-endian reads and raw inflation into a buffer of the
// declared size. Pure functions, safe from any thread.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace tarvolin::ZipReader::detail {

inline constexpr uint32_t endRecordSignature = 0x06054B50;
inline constexpr uint32_t centralHeaderSignature = 0x02014B50;
inline constexpr uint32_t localHeaderSignature = 0x04034B50;
/// Fixed sizes of the three records, without their variable-length fields.
inline constexpr size_t endRecordBytes = 22;
inline constexpr size_t centralHeaderBytes = 46;
inline constexpr size_t localHeaderBytes = 30;
/// The end record sits at most this far before the end of the archive: its own 22 bytes and
/// a comment of at most 65,535 bytes, plus one for the inclusive lower bound of the scan.
inline constexpr size_t endRecordSearchBytes = 65'558;

/// What the walk needs from the end-of-central-directory record.
struct EndRecord {
  uint32_t entryCount;
  uint32_t centralDirectoryOffset;

  bool operator==(const EndRecord&) const = default;
};

/// The little-endian value at `offset`, 0 when it would reach past the end of `bytes`.
uint16_t read16(std::span<const uint8_t> bytes, size_t offset);
uint32_t read32(std::span<const uint8_t> bytes, size_t offset);

/// The end record nearest the end of the archive within the last `endRecordSearchBytes`
/// bytes; nothing when the archive is shorter than a record or holds no end signature there.
std::optional<EndRecord> findEndRecord(std::span<const uint8_t> archive);

/// Raw DEFLATE (no zlib or gzip header) inflated into a buffer of `expectedBytes`. Output
/// shorter than expected is kept as is; output that would run past it is cut at
/// `expectedBytes` (an entry that inflates beyond its declared size cannot make the buffer
/// grow). Nothing when the stream is invalid or yields no bytes.
/// REQUIRES: expectedBytes > 0.
std::optional<std::vector<uint8_t>> rawInflate(std::span<const uint8_t> compressed,
                                               size_t expectedBytes);

}  // namespace tarvolin::ZipReader::detail
