#include "tarvolin/watch/detail/FanotifySource.h"

#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "tarvolin/watch/detail/WatchTree.h"

namespace tarvolin::watch_detail {
namespace {

using platform::Fanotify;

constexpr uint64_t kMask = Fanotify::kCreate | Fanotify::kDelete | Fanotify::kMovedFrom |
                           Fanotify::kMovedTo | Fanotify::kModify | Fanotify::kCloseWrite |
                           Fanotify::kAttrib | Fanotify::kOnDirectory;
constexpr size_t kReadBytes = 256 * 1024;
// Past this many cached folders the cache starts over: a bound on memory for a busy disk.
constexpr size_t kCacheLimit = 1 << 16;

bool isAtOrBelow(const std::string& path, const std::string& root) {
  if (!path.starts_with(root)) return false;
  return path.size() == root.size() || root == "/" || path[root.size()] == '/';
}

}  // namespace

std::unique_ptr<FanotifySource> FanotifySource::open(const std::vector<std::string>& roots) {
  std::optional<Fanotify> fanotify = Fanotify::open();
  if (!fanotify || roots.empty()) return nullptr;
  std::unique_ptr<FanotifySource> source(new FanotifySource(std::move(*fanotify)));
  for (const std::string& root : roots) {
    std::error_code error;
    std::filesystem::path resolved = std::filesystem::canonical(root, error);
    if (error || !std::filesystem::is_directory(resolved, error)) return nullptr;
    auto reference = platform::fileSystemReference(resolved.c_str());
    if (!reference) return nullptr;
    source->roots_.push_back(Root{root, resolved.string()});
    bool marked = false;
    for (const FileSystem& known : source->fileSystems_)
      marked |= known.id == reference->fileSystemID;
    if (marked) continue;
    if (source->fanotify_.markFileSystem(resolved.c_str(), kMask) != 0) return nullptr;
    source->fileSystems_.push_back(
        FileSystem{reference->fileSystemID, std::move(reference->mount)});
  }
  source->buffer_.resize(kReadBytes);
  return source;
}

void FanotifySource::drain(PendingBatch& batch) {
  for (;;) {
    size_t got = fanotify_.read(buffer_);
    if (got == 0) break;
    platform::parseFanotifyEvents(std::span<const uint8_t>(buffer_.data(), got), events_);
    for (const platform::FanotifyEvent& event : events_) handle(event, batch);
  }
}

std::optional<std::string> FanotifySource::insideRoots(const std::string& resolved) const {
  for (const Root& root : roots_) {
    if (isAtOrBelow(resolved, root.resolved)) {
      return root.given + resolved.substr(root.resolved == "/" ? 0 : root.resolved.size());
    }
  }
  return std::nullopt;
}

const FanotifySource::Folder* FanotifySource::folderOf(const platform::FanotifyEvent& event) {
  key_.assign(reinterpret_cast<const char*>(&event.fileSystemID), sizeof event.fileSystemID);
  key_.append(event.handle);
  if (auto cached = cache_.find(key_); cached != cache_.end()) return &cached->second;
  const FileSystem* fileSystem = nullptr;
  for (const FileSystem& known : fileSystems_) {
    if (known.id == event.fileSystemID) fileSystem = &known;
  }
  if (fileSystem == nullptr) return nullptr;
  std::optional<std::string> resolved = platform::pathOfHandle(fileSystem->mount, event.handle);
  // A stale handle is not cached: it cannot open again.
  if (!resolved) return nullptr;
  if (cache_.size() >= kCacheLimit) cache_.clear();
  std::optional<std::string> reported = insideRoots(*resolved);
  return &cache_.insert_or_assign(key_, Folder{std::move(*resolved), std::move(reported)})
              .first->second;
}

void FanotifySource::reportSubtree(const std::string& path, PendingBatch& batch) {
  stack_.clear();
  stack_.push_back(path);
  while (!stack_.empty()) {
    std::string folder = std::move(stack_.back());
    stack_.pop_back();
    // Gone again already: its parent's event names the parent.
    if (reader_.open(folder.c_str()) != 0) continue;
    batch.addPath(folder);
    reader_.forEach([&](const platform::DirectoryEntry& entry) {
      if (entry.type == platform::EntryType::directory) {
        stack_.push_back(joinPath(folder, entry.name));
      }
    });
    reader_.close();
  }
}

void FanotifySource::handle(const platform::FanotifyEvent& event, PendingBatch& batch) {
  if (event.mask & Fanotify::kQueueOverflow) {
    batch.mustFullRescan = true;
    return;
  }
  if (event.handle.empty()) return;
  const Folder* folder = folderOf(event);
  bool onFolder = (event.mask & Fanotify::kOnDirectory) != 0;
  bool folderGoes = onFolder && (event.mask & (Fanotify::kMovedFrom | Fanotify::kDelete));
  if (folder == nullptr) return;
  if (folder->reported && event.name != ".") batch.addPath(*folder->reported);
  if (folder->reported && onFolder && !event.name.empty() && event.name != "." &&
      (event.mask & (Fanotify::kCreate | Fanotify::kMovedTo))) {
    reportSubtree(joinPath(*folder->reported, event.name), batch);
  }
  if (folderGoes && !event.name.empty() && event.name != ".") {
    // A root removed or moved away, itself or with a folder above it: nothing of it is
    // watched any more (its parent may lie outside the roots, so this is checked here).
    std::string gone = joinPath(folder->resolved, event.name);
    for (const Root& root : roots_) {
      if (isAtOrBelow(root.resolved, gone)) {
        batch.addPath(root.given);
        batch.mustFullRescan = true;
      }
    }
  }
  if (onFolder && (event.mask & (Fanotify::kMovedFrom | Fanotify::kMovedTo | Fanotify::kDelete))) {
    // Paths of everything below a renamed or removed folder change: forget them all. The
    // event's own folder was reported above, while its entry was still right.
    cache_.clear();
  }
}

}  // namespace tarvolin::watch_detail
