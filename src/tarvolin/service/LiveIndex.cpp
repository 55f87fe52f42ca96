#include "tarvolin/service/LiveIndex.h"

#include <chrono>

#include "tarvolin/platform/ProcessControl.h"
#include "tarvolin/query/Ranker.h"

namespace tarvolin {

namespace {

int64_t secondsNow() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::shared_ptr<const TrigramIndex> trigramsOf(const IndexStore& store) {
  return std::make_shared<const TrigramIndex>(TrigramIndex::build(store, [] { return false; }));
}

// Null when cancelled.
std::shared_ptr<const ExtensionIndex> extensionsOf(const IndexStore& store,
                                                   const std::function<bool()>& isCancelled) {
  std::optional<ExtensionIndex> built = ExtensionIndex::build(store, isCancelled);
  if (!built) return nullptr;
  return std::make_shared<const ExtensionIndex>(std::move(*built));
}

}  // namespace

LiveIndex::LiveIndex(std::filesystem::path indexPath, std::shared_ptr<const IndexStore> store)
    : store_(std::move(store)),
      trigrams_(trigramsOf(*store_)),
      extensions_(extensionsOf(*store_, [] { return false; })),
      scores_(Ranker::scoresOf(store_)),
      lastChangeAt_(secondsNow()),
      indexPath_(std::move(indexPath)),
      startedAt_(lastChangeAt_) {}

std::shared_ptr<const IndexStore> LiveIndex::current() const {
  std::lock_guard guard(lock_);
  return store_;
}

LiveIndex::Snapshot LiveIndex::snapshot() const {
  std::lock_guard guard(lock_);
  return {store_, trigrams_, extensions_, scores_};
}

void LiveIndex::buildSearchTables(const std::function<bool()>& isCancelled) {
  std::shared_ptr<const IndexStore> store;
  {
    std::lock_guard guard(lock_);
    if (trigrams_) return;
    store = store_;
  }
  auto trigrams = std::make_shared<const TrigramIndex>(TrigramIndex::build(*store, isCancelled));
  // A cancelled build is empty and answers "nowhere": never attach one.
  if (isCancelled()) return;
  std::shared_ptr<const ExtensionIndex> extensions = extensionsOf(*store, isCancelled);
  if (!extensions) return;
  std::shared_ptr<const std::vector<int32_t>> scores = Ranker::scoresOf(store);
  std::lock_guard guard(lock_);
  if (store_ == store) {
    trigrams_ = std::move(trigrams);
    extensions_ = std::move(extensions);
    scores_ = std::move(scores);
  }
}

void LiveIndex::publish(std::shared_ptr<const IndexStore> store) {
  std::lock_guard guard(lock_);
  store_ = std::move(store);
  trigrams_ = nullptr;
  extensions_ = nullptr;
  scores_ = nullptr;
  lastChangeAt_ = secondsNow();
}

std::vector<std::string> LiveIndex::rootsOf(const IndexStore& store) {
  std::vector<std::string> roots;
  for (const VolumeEntry& volume : store.header().volumes) roots.push_back(volume.mountPath);
  return roots;
}

ServiceProtocol::StatusAnswer LiveIndex::status() const {
  ServiceProtocol::StatusAnswer status;
  std::shared_ptr<const IndexStore> store = current();
  status.indexPath = indexPath_.string();
  status.processID = platform::processID();
  status.entries = store->count();
  status.indexFileBytes = store->mappedLength();
  status.residentBytes = platform::residentBytes();
  status.startedAt = startedAt_;
  {
    std::lock_guard guard(lock_);
    status.lastChangeAt = lastChangeAt_;
  }
  status.watchMode = "none";
  status.roots = rootsOf(*store);
  return status;
}

}  // namespace tarvolin
