#include "tarvolin/scan/detail/EntryAttributes.h"

#include <algorithm>
#include <cstring>

namespace tarvolin::detail {

EntryAttributes attributesOf(uint32_t id, const platform::EntryStatus& status) {
  uint64_t size = status.type == platform::EntryType::directory
                      ? 0
                      : static_cast<uint64_t>(std::max<int64_t>(status.size, 0));
  auto mtime = static_cast<uint32_t>(std::clamp<int64_t>(status.modificationTime, 0, 0xFFFFFFFFll));
  return {id, size, mtime};
}

void statByListing(platform::DirectoryReader& reader, const char* path, const NameTable& children,
                   std::vector<EntryAttributes>& into) {
  if (reader.open(path) != 0) return;
  reader.forEach([&](const platform::DirectoryEntry& entry) {
    std::optional<uint32_t> id = children.find(entry.name);
    if (!id) return;  // created since the scan
    std::optional<platform::EntryStatus> status = reader.statEntry(entry.name.data());
    if (status) into.push_back(attributesOf(*id, *status));  // else gone since the listing
  });
  reader.close();
}

void statByName(platform::DirectoryReader& reader, const char* path, const IndexBuilder& builder,
                std::span<const uint32_t> childIDs, const NameTable& children,
                std::vector<EntryAttributes>& into) {
  if (reader.open(path) != 0) return;
  char name[IndexBuilder::maxNameBytes + 1];
  for (uint32_t id : childIDs) {
    std::string_view bytes = builder.nameBytes(id);
    // Only a name a listing could return can be looked up: one component, no NUL.
    if (bytes.empty() || bytes == "." || bytes == ".." ||
        bytes.find_first_of(std::string_view("/\0", 2)) != std::string_view::npos) {
      continue;
    }
    if (children.find(bytes) != id) continue;  // a later sibling has the same name
    std::memcpy(name, bytes.data(), bytes.size());
    name[bytes.size()] = '\0';
    std::optional<platform::EntryStatus> status = reader.statEntry(name);
    if (status) into.push_back(attributesOf(id, *status));  // else gone since the scan
  }
  reader.close();
}

}  // namespace tarvolin::detail
