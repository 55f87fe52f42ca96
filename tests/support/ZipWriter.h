#pragma once
// Writes small ZIP archives for tests: stored and DEFLATE entries, other methods with their bytes
// as given, and the damage the reader must survive (a wrong declared size, a broken local
// signature, an entry count that overstates the directory, an archive comment).

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tarvolin::testing {

struct ZipEntrySpec {
  std::string name;
  std::string contents;
  /// 0 stores, 8 compresses with DEFLATE; any other method writes `contents` unchanged.
  uint16_t method = 8;
  /// The uncompressed size the central directory claims; the real size when absent.
  std::optional<uint32_t> declaredSize;
  bool damagedLocalSignature = false;
};

struct ZipOptions {
  std::string comment;
  /// The entry count the end record claims; the real count when absent.
  std::optional<uint16_t> claimedEntryCount;
};

/// The bytes of an archive holding `entries` in order.
std::string makeZip(const std::vector<ZipEntrySpec>& entries, const ZipOptions& options = {});

/// Raw DEFLATE (no header) of `bytes`, at the strongest level.
std::string deflateRaw(const std::string& bytes);

}  // namespace tarvolin::testing
