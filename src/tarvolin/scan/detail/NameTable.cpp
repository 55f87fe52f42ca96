#include "tarvolin/scan/detail/NameTable.h"

#include <bit>
#include <functional>

namespace tarvolin::detail {

void NameTable::reset(size_t count) {
  // At most half full, so probe runs stay short.
  size_t capacity = std::bit_ceil(count * 2 + 2);
  slots_.assign(capacity, Slot{});
  mask_ = capacity - 1;
}

size_t NameTable::slotOf(std::string_view key) const {
  size_t slot = std::hash<std::string_view>{}(key)&mask_;
  while (slots_[slot].used && slots_[slot].key != key) slot = (slot + 1) & mask_;
  return slot;
}

void NameTable::insert(std::string_view key, uint32_t id) {
  Slot& slot = slots_[slotOf(key)];
  slot.key = key;
  slot.id = id;
  slot.used = true;
}

std::optional<uint32_t> NameTable::find(std::string_view key) const {
  const Slot& slot = slots_[slotOf(key)];
  if (!slot.used) return std::nullopt;
  return slot.id;
}

}  // namespace tarvolin::detail
