#include "tarvolin/service/LiveContent.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <unordered_set>

#include "tarvolin/platform/DirectoryReader.h"
#include "tarvolin/service/detail/FolderPaths.h"

namespace tarvolin {

namespace {

constexpr double kCompactionThreshold = 0.5;

std::string folderOf(std::string_view path) {
  return std::string(service_detail::parentPath(path));
}

// True when some component of `folder` is hidden or one the content build never enters.
bool isSkipped(std::string_view folder) {
  for (std::string_view part : service_detail::componentsOf(folder)) {
    if (part[0] == '.') return true;
    for (std::string_view skipped : ContentIndexBuilder::skipDirectories) {
      if (part == skipped) return true;
    }
  }
  return false;
}

bool isIndexedName(std::string_view name) {
  if (name.empty() || name[0] == '.') return false;
  std::string extension = ContentIndexBuilder::lowercasedExtension(name);
  return std::find(ContentIndexBuilder::extensions.begin(), ContentIndexBuilder::extensions.end(),
                   extension) != ContentIndexBuilder::extensions.end();
}

// Modification time in seconds, with the fraction, as the build records it; nothing when the
// file is gone or too large to index.
std::optional<double> documentTime(const std::string& path) {
  std::error_code error;
  auto size = std::filesystem::file_size(path, error);
  if (error || size > static_cast<uintmax_t>(ContentIndexBuilder::maxFileBytes))
    return std::nullopt;
  auto written = std::filesystem::last_write_time(path, error);
  if (error) return std::nullopt;
  return std::chrono::duration<double>(std::chrono::file_clock::to_sys(written).time_since_epoch())
      .count();
}

}  // namespace

std::unique_ptr<LiveContent> LiveContent::open(const std::filesystem::path& path,
                                               std::vector<std::string> folders,
                                               ContentIndexBuilder::Extractor extract) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return nullptr;
  try {
    return std::unique_ptr<LiveContent>(
        new LiveContent(path, ContentIndex::read(path), std::move(folders), std::move(extract)));
  } catch (const std::exception&) {
    return nullptr;  // unreadable or malformed: `tvl content` must build it again first
  }
}

LiveContent::LiveContent(std::filesystem::path path, ContentIndex index,
                         std::vector<std::string> folders, ContentIndexBuilder::Extractor extract)
    : path_(std::move(path)),
      index_(std::move(index)),
      folders_(std::move(folders)),
      extract_(std::move(extract)) {
  rebuildFolderCounts();
}

void LiveContent::rebuildFolderCounts() {
  documentsInFolder_.clear();
  for (const ContentIndex::Document& document : index_.documents()) {
    ++documentsInFolder_[folderOf(document.path)];
  }
}

bool LiveContent::isContentFolder(std::string_view folder) const {
  return std::any_of(folders_.begin(), folders_.end(), [&](const std::string& top) {
    return service_detail::isBelowOrAt(folder, top);
  });
}

bool LiveContent::update(const std::vector<std::string>& changedFolders) {
  bool changed = false;
  platform::DirectoryReader reader;
  for (const std::string& folder : changedFolders) {
    bool holdsDocuments = documentsInFolder_.contains(folder);
    bool mayHoldNew = isContentFolder(folder) && !isSkipped(folder);
    if (!holdsDocuments && !mayHoldNew) continue;
    // The document files now in the folder.
    std::unordered_set<std::string> present;
    if (reader.open(folder.c_str()) == 0) {
      reader.forEach([&](const platform::DirectoryEntry& entry) {
        std::string_view name = entry.name;
        if (entry.type == platform::EntryType::directory || !isIndexedName(name)) return;
        present.insert(folder + "/" + std::string(name));
      });
      reader.close();
    }
    std::unordered_set<std::string> known;
    if (holdsDocuments) {
      for (const ContentIndex::Document& document : index_.documents()) {
        if (folderOf(document.path) == folder) known.insert(document.path);
      }
      std::unordered_set<std::string> gone;
      for (const std::string& path : known) {
        if (!present.contains(path)) gone.insert(path);
      }
      if (!gone.empty() && index_.remove(gone) > 0) changed = true;
    }
    for (const std::string& path : present) {
      // New documents join the content folders, and folders that already hold some.
      if (!known.contains(path) && !mayHoldNew && !holdsDocuments) continue;
      std::optional<double> modified = documentTime(path);
      if (!modified || !index_.isStale(path, *modified)) continue;
      std::optional<std::string> text = extract_(path);
      if (!text) continue;
      index_.upsert(path, *modified, *text);
      changed = true;
    }
  }
  if (!changed) return false;
  ContentIndexBuilder::enforceTextBudget(index_, ContentIndexBuilder::TextBudget::standard);
  index_.compactIfNeeded(kCompactionThreshold);
  rebuildFolderCounts();
  changed_ = true;
  return true;
}

void LiveContent::writeIfChanged() {
  if (!changed_) return;
  index_.write(path_);
  changed_ = false;
}

}  // namespace tarvolin
