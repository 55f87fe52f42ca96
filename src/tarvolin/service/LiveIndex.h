#pragma once
// The index the service answers from. It starts from a loaded store and hands the current one
// to every connection; a newer store (after changes on disk were applied) replaces it as a
// whole, so a search always runs on one consistent store while the next is being made. A store
// that stays current for a while gets a trigram index of its names, so that a search for a rare
// name looks at a few blocks of records instead of all of them, the groups of its records by
// extension, so that `ext:py` is a list at hand instead of a pass over every name, and a table
// of every record's ranking score, so that ranking a million matches is a lookup each; a new store
// is served at once without them (its searches scan every name and rank by walking folders) until
// its own are built. It also knows what `tvl status` reports about the index: its roots, how they
// are watched and when it last changed.
//
// `current`, `status` and `indexPath` may be called from any thread.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tarvolin/index/IndexStore.h"
#include "tarvolin/query/ExtensionIndex.h"
#include "tarvolin/query/TrigramIndex.h"
#include "tarvolin/service/ServiceProtocol.h"

namespace tarvolin {

class LiveIndex {
 public:
  /// Serves `store`, which was loaded from `indexPath`.
  LiveIndex(std::filesystem::path indexPath, std::shared_ptr<const IndexStore> store);
  virtual ~LiveIndex() = default;
  LiveIndex(const LiveIndex&) = delete;
  LiveIndex& operator=(const LiveIndex&) = delete;

  /// The store searches should use now.
  std::shared_ptr<const IndexStore> current() const;
  /// The current store with its trigram index, extension groups and score table (null while it
  /// has none).
  struct Snapshot {
    std::shared_ptr<const IndexStore> store;
    std::shared_ptr<const TrigramIndex> trigrams;
    std::shared_ptr<const ExtensionIndex> extensions;
    std::shared_ptr<const std::vector<int32_t>> scores;  // Ranker::scoresOf(store)
  };
  Snapshot snapshot() const;
  const std::filesystem::path& indexPath() const { return indexPath_; }
  /// Everything of a status answer that the index knows (not the connection count).
  virtual ServiceProtocol::StatusAnswer status() const;

 protected:
  /// Replaces the current store (without its search tables); connections move to it with their
  /// next request.
  void publish(std::shared_ptr<const IndexStore> store);
  /// Builds the trigram index, extension groups and score table of the current store if it has
  /// none;
  /// `isCancelled` is polled during the build. Does nothing when the store was replaced
  /// meanwhile.
  void buildSearchTables(const std::function<bool()>& isCancelled);
  /// The roots recorded in the store's volume table.
  static std::vector<std::string> rootsOf(const IndexStore& store);

  mutable std::mutex lock_;
  std::shared_ptr<const IndexStore> store_;             // guarded by lock_
  std::shared_ptr<const TrigramIndex> trigrams_;        // guarded by lock_; of store_
  std::shared_ptr<const ExtensionIndex> extensions_;    // guarded by lock_; of store_
  std::shared_ptr<const std::vector<int32_t>> scores_;  // guarded by lock_; of store_
  int64_t lastChangeAt_ = 0;                            // guarded by lock_; seconds since 1970

 private:
  std::filesystem::path indexPath_;
  int64_t startedAt_;
};

}  // namespace tarvolin
