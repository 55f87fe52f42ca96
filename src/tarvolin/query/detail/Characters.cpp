#include "tarvolin/query/detail/Characters.h"

#include "tarvolin/platform/Unicode.h"

namespace tarvolin::detail {

std::vector<std::string_view> characterViews(std::string_view text) {
  std::vector<std::string_view> characters;
  characters.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    size_t end = platform::graphemeClusterEnd(text, at);
    characters.push_back(text.substr(at, end - at));
    at = end;
  }
  return characters;
}

bool startsWithCharacter(std::string_view text, char c) {
  return !text.empty() && text[0] == c && platform::graphemeClusterEnd(text, 0) == 1;
}

bool endsWithCharacter(std::string_view text, char c) {
  if (text.empty() || text.back() != c) return false;
  // Clusters can only be found from the front: a prepended mark may join the last byte.
  size_t at = 0;
  size_t end = platform::graphemeClusterEnd(text, at);
  while (end < text.size()) {
    at = end;
    end = platform::graphemeClusterEnd(text, at);
  }
  return end - at == 1;
}

bool endsWithCharacters(std::string_view text, std::string_view suffix) {
  if (suffix.empty()) return true;
  if (text.size() < suffix.size() || !text.ends_with(suffix)) return false;
  // Adjacent ASCII bytes are separate characters (CR LF aside, which no caller asks for), so
  // only the first suffix byte can be glued to what precedes it: the suffix must start on a
  // character boundary.
  size_t start = text.size() - suffix.size();
  size_t at = 0;
  while (at < start) at = platform::graphemeClusterEnd(text, at);
  return at == start;
}

size_t findCharacter(std::string_view text, char c) {
  for (size_t at = 0; at < text.size();) {
    size_t end = platform::graphemeClusterEnd(text, at);
    if (end - at == 1 && text[at] == c) return at;
    at = end;
  }
  return std::string_view::npos;
}

bool isLetterCharacter(std::string_view character) {
  if (character.empty()) return false;
  size_t at = 0;
  return platform::isLetter(platform::decodeCodePoint(character, at));
}

bool isDigitCharacter(std::string_view character) {
  if (character.empty()) return false;
  size_t at = 0;
  return platform::isDecimalDigit(platform::decodeCodePoint(character, at));
}

}  // namespace tarvolin::detail
