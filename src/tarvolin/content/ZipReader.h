#pragma once
// Reads the entries of a ZIP archive that a caller asks for by name: the end record is found
// from the back, the central directory is walked, and each accepted entry is copied (stored) or
// inflated (DEFLATE). Office documents are ZIP archives; this is how their text parts are read.
//
// Archives are untrusted input: every offset and size is checked against the bytes, nothing is
// thrown, and every problem is signalled by leaving entries out (an unreadable file or a missing
// end record gives an empty list; a damaged central directory ends the walk with what was read;
// a damaged, oversized or unsupported entry is skipped). ZIP64 is not supported. There is no
// shared state: any number of threads may read archives at once.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tarvolin::ZipReader {

/// Entries whose declared uncompressed size is larger are skipped; no entry ever costs more.
inline constexpr uint32_t maxEntryBytes = 8'388'608;

/// The most bytes all entries of one archive may declare together (64 MiB): entries past it are
/// not read. A central directory may list 65,535 entries that all point at the same compressed
/// data; without this bound each would be inflated and kept.
inline constexpr uint64_t maxTotalBytes = 67'108'864;

/// Archives larger than this (256 MiB) are not read from a path: the whole archive is copied
/// into memory, and documents read in parallel must not hold gigabytes each.
inline constexpr size_t maxArchiveBytes = 268'435'456;

/// One entry read from an archive: its name (UTF-8, invalid bytes replaced by U+FFFD) and its
/// uncompressed contents.
struct Entry {
  std::string name;
  std::vector<uint8_t> data;

  bool operator==(const Entry&) const = default;
};

/// Decides from an entry's name whether it is read.
using NamePredicate = std::function<bool(std::string_view name)>;

/// The entries of the archive at `path` that `accept` takes, in central-directory order. The
/// file is read once (mapped); a file that cannot be read gives an empty list.
std::vector<Entry> entries(const std::filesystem::path& path, const NamePredicate& accept);

/// The same over archive bytes already in memory.
std::vector<Entry> entries(std::span<const uint8_t> archive, const NamePredicate& accept);

}  // namespace tarvolin::ZipReader
