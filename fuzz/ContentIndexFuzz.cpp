// Any bytes as a content.bin: decoding either throws ContentIndexError or gives an index whose
// searches stay inside its blob, whatever offsets and lengths the table claims. Half of the
// inputs get a correct length prefix in front, so the JSON table behind it is reached as often
// as the prefix checks.

#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "tarvolin/content/ContentIndex.h"
#include "tarvolin/content/ContentIndexError.h"
#include "tarvolin/content/ContentIndexTable.h"

namespace {

// The fast table reader must agree with the general one on everything it accepts.
void compareReaders(std::string_view table) {
  auto compact = tarvolin::ContentIndexTable::decodeCompact(table);
  if (!compact) return;
  try {
    if (tarvolin::ContentIndexTable::decodeGeneral(table) != *compact) __builtin_trap();
  } catch (const tarvolin::ContentIndexError&) {
    __builtin_trap();
  }
}

void searchAll(std::span<const uint8_t> file) {
  tarvolin::ContentIndex index;
  try {
    index = tarvolin::ContentIndex::decode(file);
  } catch (const tarvolin::ContentIndexError&) {
    return;
  }
  for (const char* needle : {"a", "needle", "\xC3\x89t\xC3\xA9", "\n"}) {
    auto hits = index.search(needle, 1000);
    if (hits.size() > index.documents().size()) __builtin_trap();
    for (const auto& hit : hits) {
      if (hit.line < 1) __builtin_trap();
    }
    index.searchAll(needle, 1);
  }
  if (!index.isEmpty()) {
    index.upsert(index.documents().front().path, 0, "replaced");
    index.compactIfNeeded(0);
    index.search("replaced", 10);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  compareReaders({reinterpret_cast<const char*>(data), size});
  if (size > 0 && data[0] % 2 == 0) {
    // The first byte says how many of the rest form the table (the rest is blob).
    size_t table = std::min<size_t>(size - 1, data[0] * 4u);
    std::vector<uint8_t> file(4 + size - 1);
    auto length = static_cast<uint32_t>(table);
    std::memcpy(file.data(), &length, 4);
    std::memcpy(file.data() + 4, data + 1, size - 1);
    searchAll(file);
    return 0;
  }
  searchAll({data, size});
  return 0;
}
