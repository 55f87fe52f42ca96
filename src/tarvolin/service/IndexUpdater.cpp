#include "tarvolin/service/IndexUpdater.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <limits>
#include <unordered_map>
#include <unordered_set>

#include "tarvolin/platform/DirectoryReader.h"
#include "tarvolin/scan/AttributeCarryForward.h"
#include "tarvolin/scan/AttributeFiller.h"
#include "tarvolin/scan/DirectoryScanner.h"
#include "tarvolin/service/detail/FolderPaths.h"

namespace tarvolin {

namespace {

using service_detail::componentsOf;
using service_detail::isBelowOrAt;
using service_detail::joinPath;
using service_detail::parentPath;

constexpr RecordFlags kKindFlags{RecordFlags::isDirectory, RecordFlags::isSymlink};

uint32_t clampedTime(int64_t seconds) {
  return static_cast<uint32_t>(
      std::clamp<int64_t>(seconds, 0, std::numeric_limits<uint32_t>::max()));
}

// The size and time a record keeps for a listed entry: folders have size 0, as the filler
// records them.
std::pair<uint64_t, uint32_t> attributesOf(const platform::EntryStatus& status,
                                           platform::EntryType type) {
  uint64_t size = type == platform::EntryType::directory ? 0 : static_cast<uint64_t>(status.size);
  return {size, clampedTime(status.modificationTime)};
}

RecordFlags flagsFor(std::string_view name, platform::EntryType type) {
  RecordFlags flags;
  if (type == platform::EntryType::directory) flags.insert(RecordFlags::isDirectory);
  if (type == platform::EntryType::symlink) flags.insert(RecordFlags::isSymlink);
  if (!name.empty() && name[0] == '.') flags.insert(RecordFlags::isHidden);
  if (ScanPolicy::isAppBundle(name)) flags.insert(RecordFlags::isApp);
  return flags;
}

}  // namespace

// One call of `apply`: the store and its children table are read, the builder (made on the first
// change) collects the result.
class IndexUpdater::Pass {
 public:
  Pass(const IndexUpdater& owner, const IndexStore& store, const ChildrenIndex& children,
       Tally& tally)
      : owner_(owner),
        store_(store),
        children_(children),
        tally_(tally),
        withAttributes_(store.header().attrsCompleteness != AttrsCompleteness::none) {}

  void update(std::vector<std::string> folders, bool recursive) {
    // Parents before children, so a folder made new by this pass is scanned whole once and its
    // subfolders, named too, are skipped.
    std::sort(folders.begin(), folders.end());
    folders.erase(std::unique(folders.begin(), folders.end()), folders.end());
    for (const std::string& folder : folders) {
      if (folder.empty() || folder.front() != '/' || isFresh(folder)) continue;
      std::string path = folder;
      std::optional<uint32_t> id = findFolder(store_, children_, path);
      // Unknown: list the nearest known ancestor, where it shows up as new.
      while (!id && path != "/") {
        path = std::string(parentPath(path));
        if (isFresh(path)) break;
        id = findFolder(store_, children_, path);
      }
      if (!id) continue;
      if (recursive) {
        relistSubtree(*id, path);
      } else if (listed_.insert(*id).second) {
        relist(*id, path);
      }
    }
  }

  std::optional<IndexBuilder> result() && { return std::move(builder_); }

 private:
  IndexBuilder& builder() {
    if (!builder_) builder_ = IndexBuilder::copying(store_);
    return *builder_;
  }

  bool isFresh(std::string_view path) const {
    return std::any_of(fresh_.begin(), fresh_.end(),
                       [&](const std::string& top) { return isBelowOrAt(path, top); });
  }

  void relistSubtree(uint32_t top, const std::string& topPath) {
    std::vector<std::pair<uint32_t, std::string>> stack{{top, topPath}};
    while (!stack.empty()) {
      auto [id, path] = std::move(stack.back());
      stack.pop_back();
      if (!listed_.insert(id).second) continue;
      relist(id, path);
      for (uint32_t child : children_.children(id)) {
        const FileRecord& record = store_[child];
        if (!record.flags.contains(RecordFlags::isDirectory) || isDeleted(child)) continue;
        std::string childPath = joinPath(path, store_.nameBytes(child));
        if (owner_.policy_.shouldDescend(childPath)) stack.emplace_back(child, childPath);
      }
    }
  }

  bool isDeleted(uint32_t id) const {
    return builder_ ? (*builder_)[id].flags.contains(RecordFlags::deleted)
                    : store_[id].flags.contains(RecordFlags::deleted);
  }

  // Marks `id` and every record below it deleted.
  void deleteSubtree(uint32_t id) {
    std::vector<uint32_t> stack{id};
    while (!stack.empty()) {
      uint32_t next = stack.back();
      stack.pop_back();
      if (isDeleted(next)) continue;
      builder().markDeleted(next);
      ++tally_.deleted;
      for (uint32_t child : children_.children(next)) stack.push_back(child);
    }
  }

  void relist(uint32_t id, const std::string& path) {
    ++tally_.foldersListed;
    int opened = reader_.open(path.c_str());
    if (opened != 0) {
      // Gone, or no longer a folder: whatever was below it is gone too. Other failures (no
      // permission for now) keep the records.
      if (opened == ENOENT || opened == ENOTDIR) {
        for (uint32_t child : children_.children(id)) deleteSubtree(child);
      }
      return;
    }
    // The known children by name; a name cut at 255 bytes matches the cut listing name.
    std::unordered_map<std::string_view, uint32_t> known;
    for (uint32_t child : children_.children(id)) {
      if (!isDeleted(child)) known[store_.nameBytes(child)] = child;
    }
    std::unordered_set<uint32_t> seen;
    std::vector<std::pair<std::string, platform::EntryType>> added;
    uint8_t volume = store_[id].volumeIndex;
    reader_.forEach([&](const platform::DirectoryEntry& entry) {
      std::string_view name = entry.name;
      std::string_view key = name.substr(0, IndexBuilder::maxNameBytes);
      auto found = known.find(key);
      RecordFlags flags = flagsFor(name, entry.type);
      if (found != known.end() &&
          (store_[found->second].flags & kKindFlags) == (flags & kKindFlags)) {
        seen.insert(found->second);
        if (withAttributes_) refresh(found->second, name, entry.type);
        return;
      }
      added.emplace_back(name, entry.type);
    });
    reader_.close();
    if (withAttributes_) refreshFolder(id, path);
    for (const auto& [name, child] : known) {
      if (!seen.contains(child)) deleteSubtree(child);
    }
    if (added.empty()) return;
    // Listed again for the attributes and the subtrees (the first listing's buffer is gone).
    if (withAttributes_ && reader_.open(path.c_str()) != 0) return;
    for (const auto& [name, type] : added) add(id, path, name, type, volume);
    reader_.close();
  }

  void refresh(uint32_t id, std::string_view name, platform::EntryType type) {
    std::optional<platform::EntryStatus> status = reader_.statEntry(std::string(name).c_str());
    if (!status) return;
    auto [size, mtime] = attributesOf(*status, type);
    const FileRecord& record = store_[id];
    if (record.flags.contains(RecordFlags::attrsFilled) && record.size == size &&
        record.mtime == mtime) {
      return;
    }
    builder().setAttributes(id, size, mtime);
    ++tally_.refreshed;
  }

  // A folder's own time comes from its parent's listing, which a change inside it does not
  // cause: refreshed here instead.
  void refreshFolder(uint32_t id, const std::string& path) {
    if (store_[id].parentID == FileRecord::rootParentID) return;
    std::error_code error;
    auto written = std::filesystem::last_write_time(path, error);
    if (error) return;
    int64_t seconds = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::file_clock::to_sys(written).time_since_epoch())
                          .count();
    uint32_t mtime = clampedTime(seconds);
    const FileRecord& record = store_[id];
    if (record.flags.contains(RecordFlags::attrsFilled) && record.mtime == mtime) return;
    builder().setAttributes(id, 0, mtime);
    ++tally_.refreshed;
  }

  void add(uint32_t parent, const std::string& parentPath, const std::string& name,
           platform::EntryType type, uint8_t volume) {
    uint32_t id = builder().addEntry(name, parent, flagsFor(name, type), volume);
    ++tally_.added;
    if (withAttributes_) {
      if (std::optional<platform::EntryStatus> status = reader_.statEntry(name.c_str())) {
        auto [size, mtime] = attributesOf(*status, type);
        builder().setAttributes(id, size, mtime);
      }
    }
    if (type != platform::EntryType::directory) return;
    std::string path = joinPath(parentPath, name);
    fresh_.push_back(path);
    if (owner_.policy_.shouldDescend(path)) addSubtree(id, path, volume);
  }

  // Scans the new folder `path` (already recorded as `id`) and appends everything below it.
  void addSubtree(uint32_t id, const std::string& path, uint8_t volume) {
    DirectoryScanner scanner(owner_.policy_, 0, 0, owner_.home_);
    ScanResult scanned = scanner.scan(path, volume);
    IndexBuilder& found = scanned.builder;
    if (withAttributes_) {
      AttributeFiller::fill(found, [] { return true; }, false, AttributeFiller::Appetite::working,
                            {});
    }
    // The scan starts with the chain "", then one folder per component, down to `path` itself.
    uint32_t chain = static_cast<uint32_t>(componentsOf(path).size()) + 1;
    if (found.recordCount() <= chain) return;
    std::vector<uint32_t> newID(found.recordCount(), FileRecord::rootParentID);
    newID[chain - 1] = id;
    IndexBuilder& into = builder();
    for (uint32_t old = chain; old < found.recordCount(); ++old) {
      const FileRecord& record = found[old];
      if (record.parentID >= old || newID[record.parentID] == FileRecord::rootParentID) continue;
      uint32_t copied = into.addEntry(found.nameBytes(old), newID[record.parentID],
                                      record.flags - RecordFlags::attrsFilled, volume);
      if (record.flags.contains(RecordFlags::attrsFilled)) {
        into.setAttributes(copied, record.size, record.mtime);
      }
      newID[old] = copied;
      ++tally_.added;
    }
  }

  const IndexUpdater& owner_;
  const IndexStore& store_;
  const ChildrenIndex& children_;
  Tally& tally_;
  bool withAttributes_;
  std::optional<IndexBuilder> builder_;
  std::unordered_set<uint32_t> listed_;
  std::vector<std::string> fresh_;  // new folders of this pass, scanned whole
  platform::DirectoryReader reader_;
};

IndexUpdater::IndexUpdater(ScanPolicy policy, std::string home)
    : policy_(std::move(policy)), home_(std::move(home)) {}

std::optional<IndexBuilder> IndexUpdater::apply(const std::shared_ptr<const IndexStore>& store,
                                                std::vector<std::string> folders, bool recursive,
                                                Tally* tally) {
  Tally local;
  // Built for each pass and dropped after it (8 bytes a record): a pass that changes anything
  // leaves a new store behind, whose table the next pass would build again anyway.
  ChildrenIndex children(*store);
  Pass pass(*this, *store, children, tally ? *tally : local);
  pass.update(std::move(folders), recursive);
  return std::move(pass).result();
}

std::optional<uint32_t> IndexUpdater::findFolder(const IndexStore& store,
                                                 const ChildrenIndex& children,
                                                 std::string_view path) {
  std::vector<std::string_view> parts = componentsOf(path);
  for (uint32_t top : children.roots()) {
    if (!store.nameBytes(top).empty()) continue;
    uint32_t at = top;
    bool found = true;
    for (std::string_view part : parts) {
      std::string_view key = part.substr(0, IndexBuilder::maxNameBytes);
      std::optional<uint32_t> next;
      for (uint32_t child : children.children(at)) {
        if (store[child].flags.contains(RecordFlags::isDirectory) &&
            store.nameBytes(child) == key) {
          next = child;  // the later of two equal names wins, as in a carry-forward
        }
      }
      if (!next) {
        found = false;
        break;
      }
      at = *next;
    }
    if (found) return at;
  }
  return std::nullopt;
}

std::optional<IndexBuilder> IndexUpdater::rescan(const IndexStore& store,
                                                 const std::function<bool()>& shouldContinue) {
  DirectoryScanner scanner(policy_, 3, 0, home_);
  IndexBuilder merged;
  bool scannedAny = false;
  const std::vector<VolumeEntry>& volumes = store.header().volumes;
  platform::DirectoryReader probe;
  for (size_t volume = 0; volume < volumes.size(); ++volume) {
    auto index = static_cast<uint8_t>(volume);
    // A root that cannot be opened (an unplugged drive, say) keeps its records as they were.
    if (probe.open(volumes[volume].mountPath.c_str()) != 0) {
      merged.copyVolume(store, index, index);
      continue;
    }
    probe.close();
    ScanResult scanned = scanner.scan(volumes[volume].mountPath, index, {}, shouldContinue);
    if (scanned.cancelled) return std::nullopt;
    scannedAny = true;
    if (merged.recordCount() == 0) {
      merged = std::move(scanned.builder);
    } else {
      merged.merge(scanned.builder, FileRecord::rootParentID);
    }
  }
  if (!scannedAny) return std::nullopt;
  if (store.header().attrsCompleteness != AttrsCompleteness::none) {
    AttributeCarryForward::carry(store, merged);
    AttributeFiller::fill(merged, shouldContinue, true, AttributeFiller::Appetite::working, {});
  }
  if (!shouldContinue()) return std::nullopt;
  return merged;
}

}  // namespace tarvolin
