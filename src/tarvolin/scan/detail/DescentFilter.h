#pragma once
// The scanner's per-subdirectory form of ScanPolicy::shouldDescend, built once per scan.
//
// shouldDescend tests every component of a path for ".noindex" and for backup stores. The scanner
// only asks about a child of a directory it is listing, and it lists only the root and
// directories for which the answer was true, so every component above the child's name has
// already passed those tests. Hence, once the root itself has been tested in full, testing the
// last component is enough: the answer is the same for every path the scanner asks about.
// Whole-path membership in the excluded set stays a lookup, in a hash set of the entries'
// comparable (NFC) forms; a mask of their lengths rejects most paths before hashing.
//
// Immutable after construction; any number of threads may use one filter.

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>

#include "tarvolin/scan/ScanPolicy.h"

namespace tarvolin::detail {

class DescentFilter {
 public:
  /// `rootPath`: the scan root without trailing "/", as bytes.
  DescentFilter(const ScanPolicy& policy, std::string_view rootPath);

  /// Same answer as policy.shouldDescend(childPath decoded) for a subdirectory `name` of a
  /// directory being listed (the root or one this filter let through). `childPath` is the raw
  /// path bytes, ending in "/" + `name`.
  bool shouldDescend(std::string_view childPath, std::string_view name) const;

  /// The ".noindex" and store tests on one name.
  static bool nameBlocksDescent(std::string_view name);

  /// True for the bytes that end a store name or a blocking suffix. A name that blocks descent
  /// ends with one of them: its comparable form ends with an ASCII ending as whole characters,
  /// and normalisation never changes a trailing ASCII letter, digit or dot into another byte.
  static bool mayEndABlockingName(uint8_t lastByte);

 private:
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
  };
  bool isExcludedPath(std::string_view childPath) const;

  bool rootBlocked_ = false;
  uint64_t lengthMask_ = 0;  // bit (length % 64) set for every entry
  std::unordered_set<std::string, Hash, std::equal_to<>> excludedText_;
};

}  // namespace tarvolin::detail
