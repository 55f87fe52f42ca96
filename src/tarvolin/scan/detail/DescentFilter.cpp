#include "tarvolin/scan/detail/DescentFilter.h"

#include <array>

#include "tarvolin/scan/detail/TextCompare.h"

namespace tarvolin::detail {

DescentFilter::DescentFilter(const ScanPolicy& policy, std::string_view rootPath) {
  std::string scratch;
  for (const std::string& entry : policy.excluded) {
    std::string_view text = comparableText(entry, scratch);
    excludedText_.emplace(text);
    lengthMask_ |= uint64_t{1} << (text.size() % 64);
  }
  rootBlocked_ =
      ScanPolicy::isNoIndexDirectory(rootPath) || ScanPolicy::isBackupOrSystemStore(rootPath);
}

bool DescentFilter::isExcludedPath(std::string_view childPath) const {
  if (excludedText_.empty()) return false;
  std::string scratch;
  std::string_view text = comparableText(childPath, scratch);
  if (!((lengthMask_ >> (text.size() % 64)) & 1)) return false;
  return excludedText_.find(text) != excludedText_.end();
}

bool DescentFilter::mayEndABlockingName(uint8_t lastByte) {
  static const std::array<bool, 256> endings = [] {
    std::array<bool, 256> table{};
    for (std::string_view ending : ScanPolicy::descentBlockingEndings()) {
      table[static_cast<uint8_t>(ending.back())] = true;
    }
    return table;
  }();
  return endings[lastByte];
}

bool DescentFilter::nameBlocksDescent(std::string_view name) {
  // Nearly every name fails the cheap test on its last byte.
  if (!mayEndABlockingName(static_cast<uint8_t>(name.back()))) return false;
  return ScanPolicy::isNoIndexDirectory(name) || ScanPolicy::isBackupOrSystemStore(name);
}

bool DescentFilter::shouldDescend(std::string_view childPath, std::string_view name) const {
  if (rootBlocked_) return false;
  if (isExcludedPath(childPath)) return false;
  return !nameBlocksDescent(name);
}

}  // namespace tarvolin::detail
