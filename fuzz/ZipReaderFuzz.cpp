// Any bytes as a ZIP archive: the reader returns entries that are no larger than the size
// limit, with well-formed names, and never reads outside the bytes. The first byte chooses
// whether every entry is accepted or only names with a given start, so that both the walk with
// inflation and the walk that skips are reached.

#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>

#include "tarvolin/content/ZipReader.h"
#include "tarvolin/platform/Unicode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  bool acceptAll = (data[0] & 1) != 0;
  std::span<const uint8_t> archive(data + 1, size - 1);
  auto entries = tarvolin::ZipReader::entries(
      archive, [&](std::string_view name) { return acceptAll || name.starts_with("word/"); });
  for (const tarvolin::ZipReader::Entry& entry : entries) {
    if (entry.data.size() > tarvolin::ZipReader::maxEntryBytes) std::abort();
    if (!tarvolin::platform::isValidUtf8(entry.name)) std::abort();
    if (!acceptAll && !entry.name.starts_with("word/")) std::abort();
  }
  return 0;
}
