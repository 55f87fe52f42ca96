#include "tarvolin/watch/detail/WatchTree.h"

#include <utility>

namespace tarvolin::watch_detail {
namespace {

/// The prefix every path strictly below `path` starts with.
std::string below(std::string_view path) {
  std::string prefix(path);
  if (prefix != "/") prefix += '/';
  return prefix;
}

}  // namespace

std::string joinPath(std::string_view folder, std::string_view name) {
  std::string path;
  path.reserve(folder.size() + 1 + name.size());
  path += folder;
  if (folder != "/") path += '/';
  path += name;
  return path;
}

void WatchTree::set(int watch, std::string path) {
  erase(watch);
  if (auto old = byPath_.find(path); old != byPath_.end()) byWatch_.erase(old->second);
  byPath_.insert_or_assign(path, watch);
  byWatch_.emplace(watch, std::move(path));
}

const std::string* WatchTree::path(int watch) const {
  auto found = byWatch_.find(watch);
  return found == byWatch_.end() ? nullptr : &found->second;
}

void WatchTree::erase(int watch) {
  auto found = byWatch_.find(watch);
  if (found == byWatch_.end()) return;
  if (auto entry = byPath_.find(found->second); entry != byPath_.end() && entry->second == watch) {
    byPath_.erase(entry);
  }
  byWatch_.erase(found);
}

std::vector<int> WatchTree::subtree(std::string_view path) const {
  std::vector<int> watches;
  std::string prefix = below(path);
  // "/" is its own prefix: the loop below finds it.
  if (auto self = byPath_.find(path); self != byPath_.end() && prefix != path) {
    watches.push_back(self->second);
  }
  for (auto at = byPath_.lower_bound(prefix);
       at != byPath_.end() && std::string_view(at->first).starts_with(prefix); ++at) {
    watches.push_back(at->second);
  }
  return watches;
}

void WatchTree::rename(std::string_view from, std::string_view to) {
  if (from == to) return;
  std::vector<std::pair<int, std::string>> moved;
  for (int watch : subtree(from)) {
    const std::string& old = byWatch_.at(watch);
    moved.emplace_back(watch, std::string(to) + old.substr(from.size()));
  }
  for (const auto& [watch, path] : moved) erase(watch);
  // Whatever still sits at the destination is stale: the folder there was replaced.
  for (int watch : subtree(to)) erase(watch);
  for (auto& [watch, path] : moved) set(watch, std::move(path));
}

}  // namespace tarvolin::watch_detail
