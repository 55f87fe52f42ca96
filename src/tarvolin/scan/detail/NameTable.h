#pragma once
// A map from name bytes to record ID for one sibling group, rebuilt for every directory: open
// addressing over one flat array that keeps its storage from group to group, so filling it
// allocates nothing per name. Keys are views; the caller keeps their bytes alive while the table
// is in use. Inserting a key that is already present replaces its ID (the later record wins).
// One table belongs to one thread.

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace tarvolin::detail {

class NameTable {
 public:
  /// Empties the table and makes room for `count` keys.
  void reset(size_t count);
  void insert(std::string_view key, uint32_t id);
  std::optional<uint32_t> find(std::string_view key) const;

 private:
  struct Slot {
    std::string_view key;
    uint32_t id = 0;
    bool used = false;
  };
  size_t slotOf(std::string_view key) const;

  std::vector<Slot> slots_;
  size_t mask_ = 0;
};

}  // namespace tarvolin::detail
