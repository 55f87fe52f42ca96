#include "tarvolin/scan/detail/ScanTally.h"

#include "tarvolin/platform/Unicode.h"
#include "tarvolin/scan/DirectoryScanner.h"

namespace tarvolin::detail {

bool isInside(std::string_view path, std::string_view home) {
  if (home.empty() || !path.starts_with(home)) return false;
  return path.size() == home.size() || path[home.size()] == '/';
}

void ScanTally::account(bool opened, int errorNumber, int64_t entriesRecorded,
                        std::string_view path, std::string_view home) {
  if (opened) {
    entries += entriesRecorded;
    return;
  }
  ++denied;
  if (!DirectoryScanner::isFixableDenial(errorNumber) || !isInside(path, home)) return;
  ++deniedInHome;
  if (sample.size() < sampleCap)
    sample.push_back(path.empty() ? "/" : platform::decodeUtf8Lossy(path));
}

void ScanTally::add(const ScanTally& other) {
  entries += other.entries;
  denied += other.denied;
  deniedInHome += other.deniedInHome;
  for (const std::string& path : other.sample) {
    if (sample.size() >= sampleCap) break;
    sample.push_back(path);
  }
}

}  // namespace tarvolin::detail
