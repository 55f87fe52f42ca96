#include "support/IndexFixture.h"

#include <map>
#include <stdexcept>

#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/index/PathResolver.h"

namespace tarvolin::testing {

IndexBuilder buildTree(const std::vector<FixtureEntry>& entries) {
  IndexBuilder builder;
  uint32_t top =
      builder.addEntry(std::string_view(""), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
  std::map<std::string, uint32_t> folders{{"", top}};
  for (const FixtureEntry& entry : entries) {
    std::string path = entry.path;
    bool isFolder = !path.empty() && path.back() == '/';
    if (isFolder) path.pop_back();
    size_t slash = path.rfind('/');
    std::string parentPath = path.substr(0, slash);
    // Make the missing folders of the parent chain.
    size_t from = 1;
    std::string walked;
    uint32_t parent = top;
    while (from <= parentPath.size()) {
      size_t next = parentPath.find('/', from);
      if (next == std::string::npos) next = parentPath.size();
      walked = parentPath.substr(0, next);
      auto found = folders.find(walked);
      if (found == folders.end()) {
        uint32_t id = builder.addEntry(std::string_view(parentPath).substr(from, next - from),
                                       parent, RecordFlags::isDirectory, 0);
        found = folders.emplace(walked, id).first;
      }
      parent = found->second;
      from = next + 1;
    }
    std::string name = path.substr(slash + 1);
    RecordFlags flags = entry.extraFlags;
    if (isFolder) flags.insert(RecordFlags::isDirectory);
    if (!name.empty() && name[0] == '.') flags.insert(RecordFlags::isHidden);
    uint32_t id = builder.addEntry(std::string_view(name), parent, flags, 0);
    if (entry.size) builder.setAttributes(id, *entry.size, entry.mtime);
    if (isFolder) folders[path] = id;
  }
  return builder;
}

std::shared_ptr<const IndexStore> writeAndLoad(const IndexBuilder& builder,
                                               const std::filesystem::path& path) {
  IndexWriter::write(builder, {VolumeEntry{"local", "/", 0, true}}, path);
  return std::make_shared<const IndexStore>(path);
}

std::optional<uint32_t> findRecord(const IndexStore& store, const std::string& path) {
  PathResolver resolver(std::shared_ptr<const IndexStore>(&store, [](const IndexStore*) {}));
  for (uint32_t id = 0; id < store.count(); ++id) {
    if (resolver.absolutePath(id) == path) return id;
  }
  return std::nullopt;
}

}  // namespace tarvolin::testing
