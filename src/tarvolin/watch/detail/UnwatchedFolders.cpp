#include "tarvolin/watch/detail/UnwatchedFolders.h"

namespace tarvolin::watch_detail {

bool UnwatchedFolders::add(std::string_view path) {
  std::lock_guard guard(lock_);
  bool wasEmpty = folders_.empty();
  insert(path);
  return wasEmpty;
}

void UnwatchedFolders::insert(std::string_view path) {
  if (covered(path)) return;
  takeSubtree(path);
  folders_.emplace(path);
}

void UnwatchedFolders::forget(std::string_view path) {
  std::lock_guard guard(lock_);
  takeSubtree(path);
}

void UnwatchedFolders::rename(std::string_view from, std::string_view to) {
  if (from == to) return;
  std::lock_guard guard(lock_);
  std::vector<std::string> moved = takeSubtree(from);
  for (const std::string& old : moved) {
    std::string path(to);
    path.append(old, from.size());
    insert(path);
  }
}

std::vector<std::string> UnwatchedFolders::list() const {
  std::lock_guard guard(lock_);
  return {folders_.begin(), folders_.end()};
}

void UnwatchedFolders::clear() {
  std::lock_guard guard(lock_);
  folders_.clear();
}

std::vector<std::string> UnwatchedFolders::takeSubtree(std::string_view path) {
  std::vector<std::string> taken;
  if (auto self = folders_.find(path); self != folders_.end()) {
    taken.push_back(*self);
    folders_.erase(self);
  }
  std::string prefix(path);
  if (prefix != "/") prefix += '/';
  auto at = folders_.lower_bound(prefix);
  while (at != folders_.end() && std::string_view(*at).starts_with(prefix)) {
    taken.push_back(*at);
    at = folders_.erase(at);
  }
  return taken;
}

bool UnwatchedFolders::covered(std::string_view path) const {
  // The path itself, then each folder above it up to "/".
  for (;;) {
    if (folders_.find(path) != folders_.end()) return true;
    if (path == "/" || path.empty()) return false;
    size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return false;
    path = slash == 0 ? std::string_view("/") : path.substr(0, slash);
  }
}

}  // namespace tarvolin::watch_detail
