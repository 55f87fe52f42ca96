#pragma once
// Brings an index up to date with the folders a watcher named, without a full scan. Each named
// folder is listed again and compared with its records: entries no longer there are marked
// deleted with everything below them, new entries are added (a new folder with its whole subtree,
// scanned as `tvl scan` would), an entry whose kind changed (a file replaced by a folder, or the
// reverse) is deleted and added again, and when the index keeps sizes and times, those of every
// listed entry are refreshed. A folder the index does not know is handled through its nearest
// known ancestor, whose listing then shows it as new.
//
// The result is a complete set of records (the old ones keep their IDs), ready to be written as
// the next index; the store given is never changed. An updater has no threads of its own; call it
// from one thread at a time.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tarvolin/index/ChildrenIndex.h"
#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/scan/ScanPolicy.h"

namespace tarvolin {

class IndexUpdater {
 public:
  /// What one update did.
  struct Tally {
    int64_t foldersListed = 0;
    int64_t added = 0;      // records added, new subtrees included
    int64_t deleted = 0;    // records newly marked deleted
    int64_t refreshed = 0;  // records whose size or time changed
  };

  /// New folders are entered only where `policy` allows; `home` classifies denied folders as
  /// the scanner does.
  IndexUpdater(ScanPolicy policy, std::string home);

  /// Lists every folder of `folders` (absolute paths) again against `store`; with `recursive`,
  /// every known folder below each as well (for subtrees no watch covers). Returns the updated
  /// records, or nothing when the listings match the store. Never throws for file-system reasons:
  /// a folder that cannot be read keeps its records, one that is gone loses them.
  std::optional<IndexBuilder> apply(const std::shared_ptr<const IndexStore>& store,
                                    std::vector<std::string> folders, bool recursive,
                                    Tally* tally = nullptr);

  /// Scans every volume root of `store` again from scratch; sizes and times of entries at the same
  /// path are carried over from `store`, and the rest are filled when `store` keeps them. A root
  /// that cannot be opened keeps its records; when no root can, nothing is returned.
  /// `shouldContinue` is asked before each folder; a stop returns nothing.
  std::optional<IndexBuilder> rescan(const IndexStore& store,
                                     const std::function<bool()>& shouldContinue);

  /// The record of the folder at `path` (absolute) that is not deleted, if `store` has one.
  static std::optional<uint32_t> findFolder(const IndexStore& store, const ChildrenIndex& children,
                                            std::string_view path);

 private:
  class Pass;

  ScanPolicy policy_;
  std::string home_;
};

}  // namespace tarvolin
