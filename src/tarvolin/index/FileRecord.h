#pragma once
// The fixed-size entry of the name index. The same 24 bytes are used by the builder in memory,
// written to the index file, and read in place through the store's mapping, so the layout below
// is a file format: never reorder or resize these fields.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <type_traits>

namespace tarvolin {

/// A set of record flags in one byte. Any byte is a valid value; undefined bits are kept.
struct RecordFlags {
  uint8_t rawValue = 0;

  constexpr RecordFlags() = default;
  constexpr explicit RecordFlags(uint8_t raw) : rawValue(raw) {}
  constexpr RecordFlags(std::initializer_list<RecordFlags> flags) {
    for (RecordFlags flag : flags) rawValue |= flag.rawValue;
  }

  static const RecordFlags isDirectory;  // 0x01: a folder
  static const RecordFlags isApp;        // 0x02: an application bundle
  static const RecordFlags isSymlink;    // 0x04: a symbolic link, recorded and never followed
  static const RecordFlags isHidden;     // 0x08: name starts with "."
  static const RecordFlags deleted;      // 0x10: gone; the record keeps its position
  static const RecordFlags attrsFilled;  // 0x20: size and mtime hold real values

  constexpr bool contains(RecordFlags other) const {
    return (rawValue & other.rawValue) == other.rawValue;
  }
  constexpr bool isEmpty() const { return rawValue == 0; }
  constexpr bool isSubset(RecordFlags of) const { return (rawValue & ~of.rawValue) == 0; }
  constexpr bool isSuperset(RecordFlags of) const { return of.isSubset(*this); }
  constexpr void insert(RecordFlags other) { rawValue |= other.rawValue; }
  constexpr void remove(RecordFlags other) { rawValue &= static_cast<uint8_t>(~other.rawValue); }

  friend constexpr RecordFlags operator|(RecordFlags a, RecordFlags b) {
    return RecordFlags(static_cast<uint8_t>(a.rawValue | b.rawValue));
  }
  friend constexpr RecordFlags operator&(RecordFlags a, RecordFlags b) {
    return RecordFlags(static_cast<uint8_t>(a.rawValue & b.rawValue));
  }
  friend constexpr RecordFlags operator^(RecordFlags a, RecordFlags b) {
    return RecordFlags(static_cast<uint8_t>(a.rawValue ^ b.rawValue));
  }
  /// Set difference: the flags of `a` that are not in `b`.
  friend constexpr RecordFlags operator-(RecordFlags a, RecordFlags b) {
    return RecordFlags(static_cast<uint8_t>(a.rawValue & ~b.rawValue));
  }
  friend constexpr bool operator==(RecordFlags, RecordFlags) = default;
};

inline constexpr RecordFlags RecordFlags::isDirectory{0x01};
inline constexpr RecordFlags RecordFlags::isApp{0x02};
inline constexpr RecordFlags RecordFlags::isSymlink{0x04};
inline constexpr RecordFlags RecordFlags::isHidden{0x08};
inline constexpr RecordFlags RecordFlags::deleted{0x10};
inline constexpr RecordFlags RecordFlags::attrsFilled{0x20};

/// One file or folder. Its ID is its position in the record table; the name is `nameLen` bytes
/// at `nameOffset` in the name blob (raw UTF-8, at most 255 bytes, no terminator).
struct FileRecord {
  /// The parent of a top record.
  static constexpr uint32_t rootParentID = 0xFFFFFFFF;

  uint32_t parentID = rootParentID;
  uint32_t nameOffset = 0;
  uint64_t size = 0;   // bytes; 0 until attributes are filled
  uint32_t mtime = 0;  // seconds since 1970 UTC; 0 until attributes are filled
  uint8_t nameLen = 0;
  RecordFlags flags;
  uint8_t volumeIndex = 0;  // position in the header's volume table
  uint8_t reserved = 0;     // always written as 0

  constexpr FileRecord() = default;
  constexpr FileRecord(uint32_t parentID, uint32_t nameOffset, uint8_t nameLen, RecordFlags flags,
                       uint8_t volumeIndex, uint64_t size, uint32_t mtime)
      : parentID(parentID),
        nameOffset(nameOffset),
        size(size),
        mtime(mtime),
        nameLen(nameLen),
        flags(flags),
        volumeIndex(volumeIndex) {}

  friend constexpr bool operator==(const FileRecord&, const FileRecord&) = default;
};

static_assert(sizeof(RecordFlags) == 1);
static_assert(sizeof(FileRecord) == 24);
static_assert(std::is_trivially_copyable_v<FileRecord>);
static_assert(offsetof(FileRecord, parentID) == 0);
static_assert(offsetof(FileRecord, nameOffset) == 4);
static_assert(offsetof(FileRecord, size) == 8);
static_assert(offsetof(FileRecord, mtime) == 16);
static_assert(offsetof(FileRecord, nameLen) == 20);
static_assert(offsetof(FileRecord, flags) == 21);
static_assert(offsetof(FileRecord, volumeIndex) == 22);
static_assert(offsetof(FileRecord, reserved) == 23);

}  // namespace tarvolin
