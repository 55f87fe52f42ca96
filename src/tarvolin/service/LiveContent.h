#pragma once
// Keeps a content index current as documents change, for the service: each folder a watcher
// names is looked at again, and only documents there are touched. A document whose file is newer
// than its stored text is extracted again (`upsert`), one whose file is gone is removed, and a new
// document file is added when its folder lies in one of the content folders (the folders
// `tvl content` read) or already holds an indexed document. Dead text is compacted away once it
// makes up half the blob; the plain-text budget holds as in a build. The file is rewritten only
// when asked, atomically.
//
// One thread at a time.

#include <filesystem>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "tarvolin/content/ContentIndex.h"
#include "tarvolin/content/ContentIndexBuilder.h"

namespace tarvolin {

class LiveContent {
 public:
  /// The content index at `path`, or nothing when there is no file there or it cannot be read
  /// (nothing to keep current). `folders` are the content folders.
  static std::unique_ptr<LiveContent> open(
      const std::filesystem::path& path, std::vector<std::string> folders,
      ContentIndexBuilder::Extractor extract = ContentIndexBuilder::defaultExtract);

  /// Brings the documents directly inside each of `changedFolders` up to date; true when the
  /// index changed.
  bool update(const std::vector<std::string>& changedFolders);
  /// Writes the index to its file when it changed since it was read or last written. Throws
  /// what ContentIndex::write throws; the previous file then stays whole.
  void writeIfChanged();

  const ContentIndex& index() const { return index_; }

 private:
  LiveContent(std::filesystem::path path, ContentIndex index, std::vector<std::string> folders,
              ContentIndexBuilder::Extractor extract);
  bool isContentFolder(std::string_view folder) const;
  void rebuildFolderCounts();

  std::filesystem::path path_;
  ContentIndex index_;
  std::vector<std::string> folders_;
  ContentIndexBuilder::Extractor extract_;
  std::unordered_map<std::string, int64_t> documentsInFolder_;
  bool changed_ = false;
};

}  // namespace tarvolin
