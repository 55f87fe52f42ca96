#pragma once
// The 4096-byte header of index.bin and its volume table. Byte layout (little-endian; every byte
// not listed is zero; see docs/format/index.bin.md):
//
//   0  "1LVT"            4  u32 format version (5)   8  u32 recordCount   12 u32 nameBlobLength
//   16 u64 checksum      24 u32 volume count (0-12)  28 u8 attrsCompleteness
//   32 + 312*i           volume slot i: 40-byte uuid, 256-byte mountPath (both 0-terminated
//                        UTF-8), u64 lastEventID at 296, u8 isAvailable at 304
//
// The record table follows at 4096 and the name blob right after it. The checksum covers both.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace tarvolin {

/// The format version this build reads and writes.
inline constexpr uint32_t formatVersion = 5;

/// How many records carry real size and mtime values.
enum class AttrsCompleteness : uint8_t { none = 0, partial = 1, complete = 2 };

/// One slot of the volume table. A record's volumeIndex is the position of its volume.
struct VolumeEntry {
  static constexpr size_t byteSize = 312;
  static constexpr size_t uuidFieldSize = 40;
  static constexpr size_t pathFieldSize = 256;

  std::string uuid;       // at most 39 bytes are stored
  std::string mountPath;  // at most 255 bytes are stored
  uint64_t lastEventID = 0;
  bool isAvailable = false;

  friend bool operator==(const VolumeEntry&, const VolumeEntry&) = default;
};

struct IndexHeader {
  static constexpr size_t byteSize = 4096;
  static constexpr size_t maxVolumes = 12;
  /// "1LVT" read as a little-endian u32.
  static constexpr uint32_t magic = 0x54564C31;

  uint32_t recordCount = 0;
  uint32_t nameBlobLength = 0;
  uint64_t checksum = 0;
  std::vector<VolumeEntry> volumes;
  AttrsCompleteness attrsCompleteness = AttrsCompleteness::none;

  /// Exactly 4096 bytes; writes at most the first 12 volumes.
  std::vector<uint8_t> encode() const;
  /// Like encode(), but throws IndexError::tooManyVolumes for more than 12 volumes.
  std::vector<uint8_t> encodeChecked() const;
  /// Reads a header from the first 4096 bytes of `bytes`, checking in this order: truncated,
  /// badMagic, versionMismatch, tooManyVolumes. Throws IndexError. Never reads past `bytes`.
  static IndexHeader decode(std::span<const uint8_t> bytes);

  friend bool operator==(const IndexHeader&, const IndexHeader&) = default;
};

namespace detail {
/// Copies the longest prefix of `text` of at most size - 1 bytes (a byte cut, which may split a
/// character) to buffer[offset] and puts a 0 byte after it. REQUIRES: size >= 1, in bounds.
void writeFixedString(std::vector<uint8_t>& buffer, const std::string& text, size_t offset,
                      size_t size);
}  // namespace detail

}  // namespace tarvolin
