#pragma once
// What an `ext` term compares: the extension of a name, and the items the term lists. Shared by
// the general evaluation, the extension groups and the matcher's use of them, so that all three
// read names and terms alike. Pure functions; any thread.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/query/detail/AsciiFold.h"

namespace tarvolin::detail {

/// The extension of a name: the text after its last "."; none when there is no ".", or the last
/// "." is the first or the last byte.
inline std::optional<std::string_view> extensionOf(std::string_view name) {
  size_t dot = name.rfind('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == name.size()) return std::nullopt;
  return name.substr(dot + 1);
}

/// The items of an `ext` term's text, split at ",", ASCII lower-cased, empty ones kept (an empty
/// item names no extension).
inline std::vector<std::string> extensionItems(std::string_view text) {
  std::vector<std::string> items;
  while (true) {
    size_t comma = text.find(',');
    items.push_back(lowerAscii(text.substr(0, comma)));
    if (comma == std::string_view::npos) return items;
    text.remove_prefix(comma + 1);
  }
}

}  // namespace tarvolin::detail
