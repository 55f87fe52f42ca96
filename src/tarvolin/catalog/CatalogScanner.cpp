#include "tarvolin/catalog/CatalogScanner.h"

#include <optional>
#include <thread>

#include "tarvolin/catalog/CatalogStats.h"
#include "tarvolin/catalog/FolderSizes.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/query/TrigramIndex.h"
#include "tarvolin/scan/DirectoryScanner.h"

namespace tarvolin::CatalogScanner {

uint32_t rootRecordID(std::string_view root) {
  uint32_t pieces = 0;
  bool inPiece = false;
  for (char c : root) {
    if (c == '/') {
      inPiece = false;
    } else if (!inPiece) {
      inPiece = true;
      ++pieces;
    }
  }
  return pieces;
}

Outcome scan(std::string_view root, const std::string& volumeUUID,
             const std::filesystem::path& target, const ScanPolicy& policy,
             AttributeFiller::Appetite appetite, const std::function<bool()>& shouldContinue,
             const std::function<void(int64_t)>& onProgress, const std::string& home,
             const std::filesystem::path& trigramTarget) {
  const uint32_t rootID = rootRecordID(root);
  const Outcome cancelled{0, 0, 0, rootID, true};

  DirectoryScanner scanner(policy, seedDepth, progressInterval, home);
  ScanResult result = scanner.scan(root, 0, onProgress, shouldContinue);
  if (result.cancelled) return cancelled;

  AttributeFiller::fill(result.builder, shouldContinue, /*onlyMissing=*/false, appetite, {});
  if (!shouldContinue()) return cancelled;

  FolderSizes::rollUp(result.builder);
  CatalogStats stats = CatalogStats::measure(result.builder, rootID);
  const IndexBuilder& builder = result.builder;
  // The index file holds the builder's records and names in its order, so the side file can be
  // built from the builder on a second thread while the first writes (and flushes) the index.
  std::optional<TrigramIndex> trigrams;
  std::thread side;
  if (!trigramTarget.empty()) {
    side = std::thread([&builder, &trigrams] {
      trigrams = TrigramIndex::build([&builder](uint32_t id) { return builder.nameBytes(id); },
                                     builder.recordCount(), {});
    });
  }
  IndexHeader header;
  try {
    header =
        IndexWriter::write(builder, {VolumeEntry{volumeUUID, std::string(root), 0, true}}, target);
  } catch (...) {
    if (side.joinable()) side.join();
    throw;
  }
  if (side.joinable()) {
    side.join();
    try {
      trigrams->write(trigramTarget, header.checksum);
    } catch (const std::system_error&) {
    }
  }
  return Outcome{stats.fileCount, stats.folderCount, stats.totalBytes, rootID, false};
}

}  // namespace tarvolin::CatalogScanner
