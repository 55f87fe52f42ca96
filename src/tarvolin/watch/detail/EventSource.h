#pragma once
// What the watcher's reader thread needs from a kernel event interface (inotify or fanotify):
// a descriptor to wait on, and a way to turn everything queued into one pending batch.
//
// Used by the reader thread only (built on the owner's thread before the reader starts).

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace tarvolin::watch_detail {

/// The signals gathered for the next delivery. Each folder is kept once, in the order of its
/// first event.
struct PendingBatch {
  std::vector<std::string> paths;
  std::unordered_set<std::string> seen;
  bool mustFullRescan = false;
  bool historyDone = false;

  void addPath(std::string_view path) {
    auto [at, inserted] = seen.emplace(path);
    if (inserted) paths.push_back(*at);
  }
  bool empty() const { return paths.empty() && !mustFullRescan && !historyDone; }
  void clear() {
    paths.clear();
    seen.clear();
    mustFullRescan = false;
    historyDone = false;
  }
};

class EventSource {
 public:
  virtual ~EventSource() = default;
  /// Readable when events are queued.
  virtual int fd() const = 0;
  /// Reads every event queued now and adds what they mean to `batch`.
  /// Throws std::system_error when the kernel interface fails.
  virtual void drain(PendingBatch& batch) = 0;
};

}  // namespace tarvolin::watch_detail
