#pragma once
// Names are matched with ASCII case folding: "A"-"Z" compare as "a"-"z", every other byte as
// itself. Needles are lower-cased once, names folded byte by byte as they are compared.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarvolin::detail {

inline uint8_t foldAscii(uint8_t c) {
  return c >= 'A' && c <= 'Z' ? static_cast<uint8_t>(c + 32) : c;
}

/// The bytes after which a word starts.
inline bool isWordBoundaryByte(uint8_t c) {
  return c == ' ' || c == '-' || c == '.' || c == '/' || c == '_';
}

/// The needle as matched: ASCII letters lower-cased, other bytes unchanged.
inline std::string lowerAscii(std::string_view text) {
  std::string lowered(text);
  for (char& c : lowered) c = static_cast<char>(foldAscii(static_cast<uint8_t>(c)));
  return lowered;
}

/// True when `length` bytes of `name`, folded, equal those of `needle` (already lower-cased).
inline bool equalFolded(const uint8_t* name, const uint8_t* needle, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (foldAscii(name[i]) != needle[i]) return false;
  }
  return true;
}

}  // namespace tarvolin::detail
