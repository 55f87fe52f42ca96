#pragma once
// Character-level helpers for the query code. A "character" is a grapheme cluster: an ASCII
// delimiter such as a quote, a colon or a slash only counts when it stands alone, so a quote
// followed by a combining accent is ordinary text. Pure functions; any thread.

#include <cstddef>
#include <string_view>
#include <vector>

namespace tarvolin::detail {

/// The characters of `text`, as views into it, in order.
std::vector<std::string_view> characterViews(std::string_view text);

/// True when `character` is exactly the single ASCII character `c`.
inline bool isCharacter(std::string_view character, char c) {
  return character.size() == 1 && character[0] == c;
}

/// True when the first character of `text` is exactly `c`.
bool startsWithCharacter(std::string_view text, char c);
/// True when the last character of `text` is exactly `c`.
bool endsWithCharacter(std::string_view text, char c);
/// True when `text` ends with the ASCII characters of `suffix`, each a character of its own.
bool endsWithCharacters(std::string_view text, std::string_view suffix);
/// Byte offset of the first character that is exactly `c`, or npos.
size_t findCharacter(std::string_view text, char c);

/// True when the first code point of `character` is a letter / a decimal digit.
bool isLetterCharacter(std::string_view character);
bool isDigitCharacter(std::string_view character);

}  // namespace tarvolin::detail
