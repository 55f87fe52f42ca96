#pragma once
// The counts a scan keeps for the directories it lists: entries recorded, directories that could
// not be opened, and of those the ones inside the home folder that failed with EPERM (the denial
// that granting access fixes), with a sample of their paths. One tally per thread; the scanner
// adds them up in a fixed order.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tarvolin::detail {

struct ScanTally {
  static constexpr size_t sampleCap = 16;

  int64_t entries = 0;
  int64_t denied = 0;
  int64_t deniedInHome = 0;
  std::vector<std::string> sample;  // at most sampleCap paths, decoded as UTF-8

  /// Accounts for one listed directory. `path` is its raw path ("" stands for "/"); `home` the
  /// home folder's bytes (empty: nothing counts as inside it).
  void account(bool opened, int errorNumber, int64_t entriesRecorded, std::string_view path,
               std::string_view home);
  /// Adds `other`'s counts and as many of its sample paths as still fit.
  void add(const ScanTally& other);

  friend bool operator==(const ScanTally&, const ScanTally&) = default;
};

/// True when `path` is `home` or lies below it (the next byte after it is "/").
bool isInside(std::string_view path, std::string_view home);

}  // namespace tarvolin::detail
