#pragma once
// Small text helpers for the tool's reports.

#include <string>
#include <string_view>

namespace tvl {

/// `text` made exactly `width` characters (grapheme clusters) long: padded on the right with
/// blanks, or cut to its first `width` characters.
std::string fitToWidth(std::string_view text, size_t width);

}  // namespace tvl
