// Any bytes as a file list: the import either throws EFUError or returns a tree whose every
// parent comes before its children, whose names are whole UTF-8 of at most 255 bytes, whose
// folders hold the sum of the sizes below them, and whose counts cover every record.

#include <cstdint>
#include <cstdlib>
#include <span>
#include <vector>

#include "tarvolin/catalog/EFUImporter.h"
#include "tarvolin/platform/Unicode.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

void verify(const tarvolin::EFUImporter::Result& result) {
  const tarvolin::IndexBuilder& builder = result.builder;
  uint32_t n = builder.recordCount();
  std::vector<uint64_t> sums(n, 0);
  int64_t folders = 0;
  uint64_t topBytes = 0;
  for (uint32_t id = 0; id < n; ++id) {
    const tarvolin::FileRecord& record = builder[id];
    check(record.parentID == tarvolin::FileRecord::rootParentID || record.parentID < id);
    check(record.nameLen > 0 && tarvolin::platform::isValidUtf8(builder.nameBytes(id)));
    check(record.flags.contains(tarvolin::RecordFlags::attrsFilled));
    bool isFolder = record.flags.contains(tarvolin::RecordFlags::isDirectory);
    folders += isFolder ? 1 : 0;
    if (record.parentID == tarvolin::FileRecord::rootParentID) topBytes += record.size;
  }
  for (uint32_t id = n; id-- > 0;) {
    const tarvolin::FileRecord& record = builder[id];
    if (record.flags.contains(tarvolin::RecordFlags::isDirectory)) check(record.size == sums[id]);
    if (record.parentID != tarvolin::FileRecord::rootParentID) sums[record.parentID] += record.size;
  }
  check(result.stats.folderCount == folders);
  check(result.stats.fileCount == static_cast<int64_t>(n) - folders);
  check(result.stats.totalBytes == topBytes);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    verify(tarvolin::EFUImporter::build(std::span<const uint8_t>(data, size)));
  } catch (const tarvolin::EFUImporter::EFUError&) {
  }
  return 0;
}
