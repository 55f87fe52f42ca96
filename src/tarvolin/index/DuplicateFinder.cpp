#include "tarvolin/index/DuplicateFinder.h"

#include <algorithm>
#include <array>

namespace tarvolin::DuplicateFinder {

namespace {

constexpr std::array<uint8_t, 256> makeFoldTable() {
  std::array<uint8_t, 256> table{};
  for (int byte = 0; byte < 256; ++byte) {
    table[byte] = static_cast<uint8_t>(byte >= 'A' && byte <= 'Z' ? byte + ('a' - 'A') : byte);
  }
  return table;
}
constexpr std::array<uint8_t, 256> kFold = makeFoldTable();

}  // namespace

std::vector<Copy> copies(uint32_t id, const IndexStore& store, int64_t limit) {
  if (id >= store.count() || limit < 1) return {};
  const FileRecord& record = store[id];
  if (record.flags.contains(RecordFlags::deleted)) return {};
  return copies(store.nameBytes(id), record.flags.contains(RecordFlags::isDirectory), record.size,
                store, id, limit);
}

std::vector<Copy> copies(std::string_view name, bool isDirectory, uint64_t size,
                         const IndexStore& store, std::optional<uint32_t> excluding,
                         int64_t limit) {
  // A record's name is at most 255 bytes, so a longer name has no copies.
  if (name.empty() || limit < 1 || name.size() > 255) return {};
  std::array<uint8_t, 255> folded{};
  for (size_t i = 0; i < name.size(); ++i) folded[i] = kFold[static_cast<uint8_t>(name[i])];
  const auto length = static_cast<uint8_t>(name.size());
  const auto wanted = static_cast<size_t>(limit);
  const uint8_t directoryBit = isDirectory ? RecordFlags::isDirectory.rawValue : 0;
  const uint8_t kindMask = RecordFlags::isDirectory.rawValue | RecordFlags::deleted.rawValue;
  const uint32_t skipID = excluding.value_or(FileRecord::rootParentID);
  const auto* blob = reinterpret_cast<const uint8_t*>(store.nameBlob().data());

  // Neither list ever needs more than `limit` entries, so memory is bounded by the limit.
  std::vector<Copy> same;
  std::vector<Copy> others;
  std::span<const FileRecord> records = store.records();
  for (uint32_t at = 0; at < records.size(); ++at) {
    const FileRecord& record = records[at];
    // Length and kind first: most records fail one of these without touching the blob.
    if (record.nameLen != length || (record.flags.rawValue & kindMask) != directoryBit) continue;
    if (at == skipID) continue;
    const uint8_t* candidate = blob + record.nameOffset;
    size_t i = 0;
    while (i < length && kFold[candidate[i]] == folded[i]) ++i;
    if (i != length) continue;
    if (size != 0 && record.size == size) {
      same.push_back({at, true});
      if (same.size() >= wanted) return same;
    } else if (others.size() < wanted) {
      others.push_back({at, false});
    }
  }
  size_t room = wanted - same.size();
  same.insert(same.end(), others.begin(), others.begin() + std::min(room, others.size()));
  return same;
}

}  // namespace tarvolin::DuplicateFinder
