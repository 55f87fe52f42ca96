// File names are bytes from anywhere: whatever they hold, the picker's screen lines stay within
// their width, are valid UTF-8 and carry no byte a terminal would interpret (control bytes and
// escape sequences are shown as visible escapes).
//
// Input: one byte of width, one byte of word length, the word (a highlighted query word), then
// the path.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

// The picker's screen model is part of the tool, not of a library; it is compiled in here.
#include "../tools/tvl/PickScreen.cpp"
#include "tarvolin/platform/Unicode.h"

namespace {

using namespace tvl::pick;

void require(bool condition) {
  if (!condition) std::abort();
}

// Valid UTF-8 without C0 or C1 controls or DEL: nothing a terminal acts on.
bool isSafe(std::string_view text) {
  if (!tarvolin::platform::isValidUtf8(text)) return false;
  size_t index = 0;
  while (index < text.size()) {
    char32_t c = tarvolin::platform::decodeCodePoint(text, index);
    if (c < 0x20 || (c >= 0x7F && c < 0xA0)) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const int width = data[0];
  const size_t wordLength = std::min<size_t>(data[1], size - 2);
  std::string word(reinterpret_cast<const char*>(data + 2), wordLength);
  std::string path(reinterpret_cast<const char*>(data + 2 + wordLength), size - 2 - wordLength);
  std::vector<std::string> words;
  if (!word.empty()) words.push_back(word);

  require(isSafe(escapeForDisplay(path)));
  Line line = pathLine(path, words, width);
  require(widthOf(line) <= width);
  require(isSafe(textOf(line)));

  Row row{.path = path, .attributesKnown = true, .size = wordLength, .mtime = 1};
  row.hit = Row::ContentHit{7, word};
  Line result = resultLine(row, words, width, true, true);
  require(widthOf(result) == width);
  require(isSafe(textOf(result)));
  Line hit = hitLine(*row.hit, width);
  require(widthOf(hit) == width);
  require(isSafe(textOf(hit)));

  Line query = queryLine(path, width);
  require(widthOf(query) <= std::max(0, width - 1) || width <= 2);
  require(isSafe(textOf(query)));

  require(highlightMask(path, words).size() == path.size());
  return 0;
}
