#include "tarvolin/watch/detail/WatchTree.h"

#include <functional>
#include <utility>

namespace tarvolin::watch_detail {
namespace {

/// Calls `visit` with each non-empty component of `path`, in order, until it returns false.
template <typename Visit>
bool forEachComponent(std::string_view path, Visit&& visit) {
  size_t at = 0;
  while (at < path.size()) {
    size_t end = path.find('/', at);
    if (end == std::string_view::npos) end = path.size();
    if (end > at && !visit(path.substr(at, end - at))) return false;
    at = end + 1;
  }
  return true;
}

size_t hashChild(uint32_t parent, std::string_view name) {
  return std::hash<std::string_view>{}(name) ^ (size_t{parent} * 0x9E3779B97F4A7C15ull);
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

size_t WatchTree::ChildHash::operator()(uint32_t node) const {
  const Node& entry = (*nodes)[node];
  return hashChild(entry.parent, entry.name);
}

size_t WatchTree::ChildHash::operator()(const ChildKey& key) const {
  return hashChild(key.parent, key.name);
}

bool WatchTree::ChildEqual::operator()(const ChildKey& key, uint32_t node) const {
  const Node& entry = (*nodes)[node];
  return entry.parent == key.parent && entry.name == key.name;
}

WatchTree::WatchTree() : nodes_(1), children_(0, ChildHash{&nodes_}, ChildEqual{&nodes_}) {}

uint32_t WatchTree::find(std::string_view path) const {
  uint32_t node = kRoot;
  forEachComponent(path, [&](std::string_view name) {
    auto found = children_.find(ChildKey{node, name});
    node = found == children_.end() ? kNone : *found;
    return node != kNone;
  });
  return node;
}

uint32_t WatchTree::make(std::string_view path) {
  uint32_t node = kRoot;
  forEachComponent(path, [&](std::string_view name) {
    if (auto found = children_.find(ChildKey{node, name}); found != children_.end()) {
      node = *found;
    } else {
      uint32_t child = allocate();
      link(child, node, name);
      node = child;
    }
    return true;
  });
  return node;
}

uint32_t WatchTree::allocate() {
  if (!free_.empty()) {
    uint32_t node = free_.back();
    free_.pop_back();
    return node;
  }
  nodes_.emplace_back();
  return static_cast<uint32_t>(nodes_.size() - 1);
}

void WatchTree::release(uint32_t node) {
  nodes_[node] = Node{};
  free_.push_back(node);
}

void WatchTree::link(uint32_t node, uint32_t parent, std::string_view name) {
  Node& entry = nodes_[node];
  entry.name.assign(name);
  entry.parent = parent;
  entry.previous = kNone;
  entry.next = nodes_[parent].firstChild;
  if (entry.next != kNone) nodes_[entry.next].previous = node;
  nodes_[parent].firstChild = node;
  children_.insert(node);
}

void WatchTree::unlink(uint32_t node) {
  children_.erase(node);
  Node& entry = nodes_[node];
  if (entry.previous != kNone) {
    nodes_[entry.previous].next = entry.next;
  } else {
    nodes_[entry.parent].firstChild = entry.next;
  }
  if (entry.next != kNone) nodes_[entry.next].previous = entry.previous;
  entry.parent = entry.next = entry.previous = kNone;
}

void WatchTree::prune(uint32_t node) {
  while (node != kRoot && node != kNone && nodes_[node].watch == kNoWatch &&
         nodes_[node].firstChild == kNone) {
    uint32_t parent = nodes_[node].parent;
    unlink(node);
    release(node);
    node = parent;
  }
}

void WatchTree::drop(uint32_t top) {
  std::vector<uint32_t> pending{top};
  std::vector<uint32_t> gone;
  while (!pending.empty()) {
    uint32_t node = pending.back();
    pending.pop_back();
    Node& entry = nodes_[node];
    if (entry.watch != kNoWatch) byWatch_.erase(entry.watch);
    entry.watch = kNoWatch;
    for (uint32_t child = entry.firstChild; child != kNone; child = nodes_[child].next) {
      pending.push_back(child);
    }
    if (node != kRoot) gone.push_back(node);
  }
  if (top != kRoot && nodes_[top].parent != kNone) unlink(top);
  for (uint32_t node : gone) {
    if (node != top) children_.erase(node);
    release(node);
  }
  if (top == kRoot) nodes_[kRoot].firstChild = kNone;
}

void WatchTree::set(int watch, std::string_view path) {
  erase(watch);
  uint32_t node = make(path);
  Node& entry = nodes_[node];
  if (entry.watch != kNoWatch) byWatch_.erase(entry.watch);
  entry.watch = watch;
  byWatch_[watch] = node;
}

std::optional<std::string> WatchTree::path(int watch) const {
  auto found = byWatch_.find(watch);
  if (found == byWatch_.end()) return std::nullopt;
  uint32_t node = found->second;
  if (node == kRoot) return std::string("/");
  std::vector<uint32_t> chain;
  size_t length = 0;
  for (; node != kRoot; node = nodes_[node].parent) {
    chain.push_back(node);
    length += 1 + nodes_[node].name.size();
  }
  std::string path;
  path.reserve(length);
  for (auto at = chain.rbegin(); at != chain.rend(); ++at) {
    path += '/';
    path += nodes_[*at].name;
  }
  return path;
}

void WatchTree::erase(int watch) {
  auto found = byWatch_.find(watch);
  if (found == byWatch_.end()) return;
  uint32_t node = found->second;
  byWatch_.erase(found);
  nodes_[node].watch = kNoWatch;
  prune(node);
}

std::vector<int> WatchTree::subtree(std::string_view path) const {
  std::vector<int> watches;
  uint32_t top = find(path);
  if (top == kNone) return watches;
  std::vector<uint32_t> pending{top};
  while (!pending.empty()) {
    const Node& entry = nodes_[pending.back()];
    pending.pop_back();
    if (entry.watch != kNoWatch) watches.push_back(entry.watch);
    for (uint32_t child = entry.firstChild; child != kNone; child = nodes_[child].next) {
      pending.push_back(child);
    }
  }
  return watches;
}

void WatchTree::rename(std::string_view from, std::string_view to) {
  if (from == to) return;
  // Taken out first, so that a destination inside the moved folder (or holding it) is seen as
  // it will be after the move.
  uint32_t moved = find(from);
  if (moved == kRoot) moved = kNone;
  if (moved != kNone) {
    uint32_t parent = nodes_[moved].parent;
    unlink(moved);
    prune(parent);
  }
  // Whatever still sits at the destination is stale: the folder there was replaced.
  if (uint32_t stale = find(to); stale != kNone) {
    uint32_t parent = nodes_[stale].parent;
    drop(stale);
    prune(parent);
  }
  if (moved == kNone) return;
  size_t slash = to.find_last_of('/');
  std::string_view name = slash == std::string_view::npos ? to : to.substr(slash + 1);
  if (name.empty()) {
    // Nothing can take the place of "/": the moved folders are forgotten.
    drop(moved);
    return;
  }
  uint32_t parent =
      make(slash == std::string_view::npos ? std::string_view() : to.substr(0, slash));
  link(moved, parent, name);
}

}  // namespace tarvolin::watch_detail
