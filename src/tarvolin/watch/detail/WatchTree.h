#pragma once
// The watcher's map between watch descriptors and the folders they watch, both ways. Folder
// paths are absolute and normalised ("/" alone, otherwise no trailing slash).
//
// The folders are kept as a tree of names, one node per path component, so each name is held
// once however deep the folder lies: the tree of a home folder with 136,000 subfolders takes about
// a third of what two maps of whole paths took. A folder renamed inside the watched tree keeps its
// watch, and the rename moves one node; the folders below follow with it.
//
// Used by one reader thread only.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace tarvolin::watch_detail {

/// `folder` + "/" + `name`, without doubling the slash of "/".
std::string joinPath(std::string_view folder, std::string_view name);

class WatchTree {
 public:
  WatchTree();
  // The child index refers to this object's node table.
  WatchTree(const WatchTree&) = delete;
  WatchTree& operator=(const WatchTree&) = delete;

  /// Records that `watch` watches `path`, replacing whatever either was mapped to before.
  void set(int watch, std::string_view path);
  /// The folder of `watch`, or nothing for a watch not (or no longer) known.
  std::optional<std::string> path(int watch) const;
  /// Forgets `watch`; unknown ones are ignored.
  void erase(int watch);
  /// The watches of `path` and every folder below it.
  std::vector<int> subtree(std::string_view path) const;
  /// Moves `from` and every folder below it to `to`, keeping their watches. When `to` or
  /// folders below it were mapped already (stale entries of a folder replaced by the move),
  /// those entries go first. "/" itself cannot move.
  void rename(std::string_view from, std::string_view to);
  size_t size() const { return byWatch_.size(); }

 private:
  static constexpr uint32_t kNone = UINT32_MAX;
  static constexpr int kNoWatch = -1;
  static constexpr uint32_t kRoot = 0;  // the node of "/"

  /// One path component. Siblings form a doubly linked list, so any node leaves in constant time.
  struct Node {
    std::string name;
    uint32_t parent = kNone;
    uint32_t firstChild = kNone;
    uint32_t next = kNone;
    uint32_t previous = kNone;
    int watch = kNoWatch;
  };
  struct ChildKey {
    uint32_t parent;
    std::string_view name;
  };
  /// Hashes a linked node, or the key of the node looked for, by its parent and name.
  struct ChildHash {
    using is_transparent = void;
    const std::vector<Node>* nodes;
    size_t operator()(uint32_t node) const;
    size_t operator()(const ChildKey& key) const;
  };
  struct ChildEqual {
    using is_transparent = void;
    const std::vector<Node>* nodes;
    bool operator()(uint32_t a, uint32_t b) const { return a == b; }
    bool operator()(const ChildKey& key, uint32_t node) const;
    bool operator()(uint32_t node, const ChildKey& key) const { return (*this)(key, node); }
  };

  /// The node of `path`, or kNone.
  uint32_t find(std::string_view path) const;
  /// The node of `path`, made with the nodes above it when missing.
  uint32_t make(std::string_view path);
  uint32_t allocate();
  /// Puts a detached `node` under `parent` with `name`.
  void link(uint32_t node, uint32_t parent, std::string_view name);
  /// Takes `node` (with everything below it) out of its parent's children.
  void unlink(uint32_t node);
  /// Removes `node` and then each ancestor that is left with no watch and no children.
  void prune(uint32_t node);
  /// Forgets every watch in the subtree of `node` and removes its nodes (of the root, its
  /// children only). `node` may be linked or detached.
  void drop(uint32_t node);
  void release(uint32_t node);

  std::vector<Node> nodes_;
  std::vector<uint32_t> free_;
  std::unordered_set<uint32_t, ChildHash, ChildEqual> children_;
  std::unordered_map<int, uint32_t> byWatch_;
};

}  // namespace tarvolin::watch_detail
