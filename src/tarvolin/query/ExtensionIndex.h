#pragma once
// The records of a store grouped by their name's extension, for queries that name one: `ext:py`
// over 1.3 million names otherwise passes over every name to find ".py" and then tests each of
// the 170,000 names that hold it, where the group is the answer as it stands.
//
// An extension is the text after a name's last "." (none when the name has no ".", or the last
// "." is its first or last byte), compared ASCII-case-insensitively: the group key is its ASCII
// lower-case form. Only extensions of at least `minimumGroup` records get a group; a rarer one is
// found as fast by the scans, and leaving it out bounds the index by the record count however
// many distinct extensions a tree holds. Deleted records are left out.
//
// Built in two counting passes over a store that no longer changes (the service builds it with
// the trigram index); immutable once built, any number of threads may query it.

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace tarvolin {

class IndexStore;

class ExtensionIndex {
 public:
  static constexpr uint32_t minimumGroup = 64;

  /// Groups the records of `store`. `isCancelled` is polled every 65536 records; a cancelled
  /// build returns nothing.
  static std::optional<ExtensionIndex> build(const IndexStore& store,
                                             const std::function<bool()>& isCancelled);

  /// The records whose extension is `lowered` (ASCII lower case), ascending; nothing when the
  /// extension has no group (fewer than minimumGroup records hold it, or none).
  std::optional<std::span<const uint32_t>> records(std::string_view lowered) const;

  size_t groupCount() const { return groups_.size(); }
  /// The record count of the store it was built for.
  uint32_t recordCount() const { return recordCount_; }
  /// Bytes of the record lists and the group table.
  size_t byteSize() const;

 private:
  struct Group {
    uint32_t begin = 0;
    uint32_t end = 0;
  };
  std::unordered_map<std::string, Group> groups_;
  std::vector<uint32_t> ids_;  // each group's records, ascending, groups one after another
  uint32_t recordCount_ = 0;
};

}  // namespace tarvolin
