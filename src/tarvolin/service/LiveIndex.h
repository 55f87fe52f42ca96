#pragma once
// The index the service answers from. It starts from a loaded store and hands the current one
// to every connection; a newer store (after changes on disk were applied) replaces it as a
// whole, so a search always runs on one consistent store while the next is being made. It
// also knows what `tvl status` reports about the index: its roots, how they are watched and
// when it last changed.
//
// `current`, `status` and `indexPath` may be called from any thread.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tarvolin/index/IndexStore.h"
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
  const std::filesystem::path& indexPath() const { return indexPath_; }
  /// Everything of a status answer that the index knows (not the connection count).
  virtual ServiceProtocol::StatusAnswer status() const;

 protected:
  /// Replaces the current store; connections move to it with their next request.
  void publish(std::shared_ptr<const IndexStore> store);
  /// The roots recorded in the store's volume table.
  static std::vector<std::string> rootsOf(const IndexStore& store);

  mutable std::mutex lock_;
  std::shared_ptr<const IndexStore> store_;  // guarded by lock_
  int64_t lastChangeAt_ = 0;                 // guarded by lock_; seconds since 1970

 private:
  std::filesystem::path indexPath_;
  int64_t startedAt_;
};

}  // namespace tarvolin
