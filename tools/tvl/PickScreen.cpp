#include "PickScreen.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "tarvolin/platform/TerminalDevice.h"
#include "tarvolin/platform/Unicode.h"

namespace tvl::pick {

namespace {

constexpr std::string_view kEllipsis = "\u2026";
constexpr int kSizeColumn = 6;
constexpr int kDateColumn = 10;
// Below these widths the columns give way to the path.
constexpr int kWidthForSize = 40;
constexpr int kWidthForDate = 60;

// One unit of display: a printable character, or the escape shown for a byte or character.
struct Glyph {
  uint32_t begin = 0;  // the source bytes it stands for
  uint32_t end = 0;
  int width = 0;
  bool escaped = false;
};

void appendHexByte(std::string& out, uint8_t byte) {
  static constexpr char kDigits[] = "0123456789abcdef";
  out += "\\x";
  out.push_back(kDigits[byte >> 4]);
  out.push_back(kDigits[byte & 15]);
}

// Zero-width joiners build emoji sequences; every other invisible format character (bidi
// overrides above all) could disguise a name.
bool isHiddenFormatCharacter(char32_t c) {
  return c == 0xAD || (c >= 0x200B && c <= 0x200F && c != 0x200D) || (c >= 0x202A && c <= 0x202E) ||
         (c >= 0x2060 && c <= 0x206F) || c == 0xFEFF;
}

// Appends the display text of bytes[begin, end) (one glyph) to `out`.
void appendGlyphText(std::string& out, std::string_view bytes, const Glyph& glyph) {
  std::string_view source = bytes.substr(glyph.begin, glyph.end - glyph.begin);
  if (!glyph.escaped) {
    out += source;
    return;
  }
  size_t index = 0;
  char32_t c = tarvolin::platform::decodeCodePoint(source, index);
  if (index == source.size() && c >= 0x80 && isHiddenFormatCharacter(c)) {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "\\u{%" PRIX32 "}", static_cast<uint32_t>(c));
    out += buffer;
    return;
  }
  for (char byte : source) appendHexByte(out, static_cast<uint8_t>(byte));
}

int escapedWidth(std::string_view bytes, const Glyph& glyph) {
  std::string text;
  appendGlyphText(text, bytes, glyph);
  return static_cast<int>(text.size());
}

// Splits `bytes` into glyphs. Combining marks (width 0) join the glyph before them.
void glyphsOf(std::string_view bytes, std::vector<Glyph>& glyphs) {
  glyphs.clear();
  size_t index = 0;
  while (index < bytes.size()) {
    size_t begin = index;
    char32_t c = tarvolin::platform::decodeCodePoint(bytes, index);
    Glyph glyph{static_cast<uint32_t>(begin), static_cast<uint32_t>(index), 0, false};
    bool invalid = c == 0xFFFD && bytes.substr(begin, index - begin) != "\xEF\xBF\xBD";
    int width = invalid ? -1 : tarvolin::platform::terminalCellWidth(c);
    if (width < 0 || isHiddenFormatCharacter(c)) {
      glyph.escaped = true;
      glyph.width = escapedWidth(bytes, glyph);
    } else if (width == 0 && !glyphs.empty() && !glyphs.back().escaped) {
      glyphs.back().end = glyph.end;
      continue;
    } else {
      glyph.width = width;
    }
    glyphs.push_back(glyph);
  }
}

int widthOf(std::span<const Glyph> glyphs) {
  int width = 0;
  for (const Glyph& glyph : glyphs) width += glyph.width;
  return width;
}

// Glyphs from the front of `glyphs` that fit in `budget` cells.
size_t headFitting(std::span<const Glyph> glyphs, int budget) {
  size_t count = 0;
  for (const Glyph& glyph : glyphs) {
    if (glyph.width > budget) break;
    budget -= glyph.width;
    ++count;
  }
  return count;
}

// Glyphs from the back of `glyphs` that fit in `budget` cells.
size_t tailFitting(std::span<const Glyph> glyphs, int budget) {
  size_t count = 0;
  for (auto glyph = glyphs.rbegin(); glyph != glyphs.rend(); ++glyph) {
    if (glyph->width > budget) break;
    budget -= glyph->width;
    ++count;
  }
  return count;
}

// Appends `text` in `style`, joining it to the last segment when the style is the same.
void append(Line& line, std::string_view text, Style style) {
  if (text.empty()) return;
  if (!line.empty() && line.back().style == style) {
    line.back().text += text;
  } else {
    line.push_back({std::string(text), style});
  }
}

void appendGlyphs(Line& line, std::string_view bytes, std::span<const Glyph> glyphs,
                  Style baseStyle, const std::vector<bool>* mask, uint32_t maskOffset) {
  std::string text;
  for (const Glyph& glyph : glyphs) {
    Style style = baseStyle;
    if (glyph.escaped) {
      style = Style::escape;
    } else if (mask != nullptr && glyph.begin >= maskOffset && (*mask)[glyph.begin - maskOffset]) {
      style = Style::match;
    }
    text.clear();
    appendGlyphText(text, bytes, glyph);
    append(line, text, style);
  }
}

void pad(Line& line, int cells, Style style = Style::plain) {
  if (cells > 0) append(line, std::string(static_cast<size_t>(cells), ' '), style);
}

// `text` (already safe to show) cut to `width` cells with "…" at the end when it is longer.
Line cutAtEnd(std::string_view bytes, int width, Style style) {
  std::vector<Glyph> glyphs;
  glyphsOf(bytes, glyphs);
  Line line;
  if (width <= 0) return line;
  if (widthOf(glyphs) <= width) {
    appendGlyphs(line, bytes, glyphs, style, nullptr, 0);
    return line;
  }
  size_t keep = headFitting(glyphs, width - 1);
  appendGlyphs(line, bytes, std::span(glyphs).first(keep), style, nullptr, 0);
  append(line, kEllipsis, style);
  return line;
}

uint8_t foldAscii(uint8_t c) { return c >= 'A' && c <= 'Z' ? static_cast<uint8_t>(c + 32) : c; }

bool equalFolded(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (foldAscii(static_cast<uint8_t>(a[i])) != foldAscii(static_cast<uint8_t>(b[i]))) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::string textOf(const Line& line) {
  std::string text;
  for (const Segment& segment : line) text += segment.text;
  return text;
}

int widthOf(const Line& line) {
  std::vector<Glyph> glyphs;
  int width = 0;
  for (const Segment& segment : line) {
    glyphsOf(segment.text, glyphs);
    width += widthOf(glyphs);
  }
  return width;
}

std::string escapeForDisplay(std::string_view bytes) {
  std::vector<Glyph> glyphs;
  glyphsOf(bytes, glyphs);
  std::string text;
  for (const Glyph& glyph : glyphs) appendGlyphText(text, bytes, glyph);
  return text;
}

std::vector<std::string> highlightWords(const tarvolin::Query& query) {
  std::vector<std::string> words;
  auto collect = [&](const std::vector<tarvolin::Term>& terms) {
    for (const tarvolin::Term& term : terms) {
      switch (term.kind()) {
        case tarvolin::Term::Kind::substring:
        case tarvolin::Term::Kind::exactPhrase:
          if (!term.text().empty()) words.push_back(term.text());
          break;
        case tarvolin::Term::Kind::ext: {
          std::string_view list = term.text();
          while (!list.empty()) {
            size_t comma = list.find(',');
            std::string_view one = list.substr(0, comma);
            if (!one.empty()) words.push_back("." + std::string(one));
            list = comma == std::string_view::npos ? "" : list.substr(comma + 1);
          }
          break;
        }
        default:
          break;
      }
    }
  };
  collect(query.andTerms);
  for (const std::vector<tarvolin::Term>& group : query.orGroups) collect(group);
  return words;
}

std::vector<bool> highlightMask(std::string_view name, std::span<const std::string> words) {
  std::vector<bool> mask(name.size(), false);
  for (const std::string& word : words) {
    if (word.empty() || word.size() > name.size()) continue;
    bool found = false;
    for (size_t at = 0; at + word.size() <= name.size(); ++at) {
      if (!equalFolded(name.substr(at, word.size()), word)) continue;
      std::fill_n(mask.begin() + static_cast<ptrdiff_t>(at), word.size(), true);
      found = true;
    }
    if (found) continue;
    // The letters in order, each at its first place after the previous one: roughly where a
    // fuzzy match found them. Nothing is marked unless every letter is found.
    std::vector<size_t> places;
    size_t next = 0;
    for (char c : word) {
      while (next < name.size() &&
             foldAscii(static_cast<uint8_t>(name[next])) != foldAscii(static_cast<uint8_t>(c))) {
        ++next;
      }
      if (next == name.size()) break;
      places.push_back(next++);
    }
    if (places.size() == word.size()) {
      for (size_t place : places) mask[place] = true;
    }
  }
  return mask;
}

Line pathLine(std::string_view path, std::span<const std::string> words, int width) {
  Line line;
  if (width <= 0) return line;
  size_t slash = path.rfind('/');
  size_t nameStart = slash == std::string_view::npos ? 0 : slash + 1;
  if (nameStart == path.size() && path.size() > 1) {
    // "dir/": the name is the last non-empty component.
    size_t previous = path.rfind('/', path.size() - 2);
    nameStart = previous == std::string_view::npos ? 0 : previous + 1;
  }
  std::string_view nameBytes = path.substr(nameStart);
  std::vector<bool> mask = highlightMask(nameBytes, words);

  std::vector<Glyph> glyphs;
  glyphsOf(path, glyphs);
  auto firstName = std::find_if(glyphs.begin(), glyphs.end(),
                                [&](const Glyph& glyph) { return glyph.begin >= nameStart; });
  std::span<const Glyph> folder(glyphs.begin(), firstName);
  std::span<const Glyph> name(firstName, glyphs.end());
  const auto maskOffset = static_cast<uint32_t>(nameStart);
  const int folderWidth = widthOf(folder);
  const int nameWidth = widthOf(name);

  if (folderWidth + nameWidth <= width) {
    appendGlyphs(line, path, folder, Style::folder, nullptr, 0);
    appendGlyphs(line, path, name, Style::plain, &mask, maskOffset);
    return line;
  }
  // The whole name and "…", with what room is left split between the folder's two ends (a bit
  // more for its end, which says where the file is).
  if (nameWidth + 1 <= width && !folder.empty()) {
    int budget = width - nameWidth - 1;
    size_t head = headFitting(folder, budget / 2);
    int headWidth = widthOf(folder.first(head));
    size_t tail = tailFitting(folder.subspan(head), budget - headWidth);
    appendGlyphs(line, path, folder.first(head), Style::folder, nullptr, 0);
    append(line, kEllipsis, Style::folder);
    appendGlyphs(line, path, folder.last(tail), Style::folder, nullptr, 0);
    appendGlyphs(line, path, name, Style::plain, &mask, maskOffset);
    return line;
  }
  // The name alone is too wide: its start, "…", and its end.
  int budget = width - 1;
  size_t tail = tailFitting(name, (budget + 1) / 2);
  int tailWidth = widthOf(name.last(tail));
  size_t head = headFitting(name.first(name.size() - tail), budget - tailWidth);
  appendGlyphs(line, path, name.first(head), Style::plain, &mask, maskOffset);
  append(line, kEllipsis, Style::folder);
  appendGlyphs(line, path, name.last(tail), Style::plain, &mask, maskOffset);
  return line;
}

std::string formatSize(uint64_t bytes) {
  if (bytes < 1024) return std::to_string(bytes) + " B";
  static constexpr char kUnits[] = "KMGTPE";
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  value /= 1024;
  while (value >= 1023.95 && unit + 1 < sizeof kUnits - 1) {
    value /= 1024;
    ++unit;
  }
  char buffer[32];
  if (value < 9.95) {
    std::snprintf(buffer, sizeof buffer, "%.1f %c", value, kUnits[unit]);
  } else {
    std::snprintf(buffer, sizeof buffer, "%.0f %c", value, kUnits[unit]);
  }
  return buffer;
}

std::string formatDate(int64_t seconds) {
  std::time_t time = static_cast<std::time_t>(seconds);
  std::tm local{};
  if (localtime_r(&time, &local) == nullptr) return "";
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02d", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday);
  return buffer;
}

std::string formatAge(int64_t seconds) {
  if (seconds < 5) return "just now";
  if (seconds < 60) return std::to_string(seconds) + " s";
  if (seconds < 3600) return std::to_string(seconds / 60) + " min";
  if (seconds < 2 * 86400) return std::to_string(seconds / 3600) + " h";
  return std::to_string(seconds / 86400) + " days";
}

Line resultLine(const Row& row, std::span<const std::string> words, int width, bool selected,
                bool marked) {
  Line line;
  if (width <= 0) return line;
  append(line, selected ? ">" : " ", Style::marker);
  if (width >= 2) append(line, marked ? "*" : " ", Style::marker);
  int pathWidth = width - 2;
  std::string size;
  std::string date;
  if (row.attributesKnown) {
    if (!row.isDirectory) size = formatSize(row.size);
    if (row.mtime > 0) date = formatDate(row.mtime);
  }
  bool showSize = width >= kWidthForSize;
  bool showDate = width >= kWidthForDate;
  if (showSize) pathWidth -= kSizeColumn + 2;
  if (showDate) pathWidth -= kDateColumn + 2;
  Line path = pathLine(row.path, words, pathWidth);
  int used = widthOf(path);
  line.insert(line.end(), path.begin(), path.end());
  pad(line, std::max(0, pathWidth) - used);
  if (showSize) {
    pad(line, 2 + kSizeColumn - static_cast<int>(size.size()), Style::detail);
    append(line, size, Style::detail);
  }
  if (showDate) {
    pad(line, 2 + kDateColumn - static_cast<int>(date.size()), Style::detail);
    append(line, date, Style::detail);
  }
  return line;
}

Line hitLine(const Row::ContentHit& hit, int width) {
  std::string text = "      " + std::to_string(hit.line) + ": " + hit.preview;
  Line line = cutAtEnd(text, width, Style::detail);
  pad(line, width - widthOf(line), Style::detail);
  return line;
}

Line queryLine(std::string_view query, int width) {
  Line line;
  if (width <= 0) return line;
  append(line, width >= 2 ? "> " : ">", Style::prompt);
  int room = width - widthOf(line) - 1;  // one cell for the cursor after the text
  std::vector<Glyph> glyphs;
  glyphsOf(query, glyphs);
  if (widthOf(glyphs) <= room) {
    appendGlyphs(line, query, glyphs, Style::plain, nullptr, 0);
    return line;
  }
  if (room < 1) return line;
  size_t tail = tailFitting(glyphs, room - 1);
  append(line, kEllipsis, Style::folder);
  appendGlyphs(line, query, std::span<const Glyph>(glyphs).last(tail), Style::plain, nullptr, 0);
  return line;
}

Line statusLine(const Status& status, int width) {
  std::string text =
      "  " + std::to_string(status.total) + (status.total == 1 ? " match" : " matches");
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, " \u00b7 %.2f ms", status.elapsedMs);
  text += buffer;
  if (status.live) {
    text += " \u00b7 live";
  } else if (status.indexAgeSeconds) {
    std::string age = formatAge(*status.indexAgeSeconds);
    text += " \u00b7 index " + (age == "just now" ? age : age + " old");
  }
  if (status.searchingContents) text += " \u00b7 reading files\u2026";
  if (status.marked > 0) text += " \u00b7 " + std::to_string(status.marked) + " marked";
  if (!status.message.empty()) text += " \u00b7 " + status.message;
  Line line = cutAtEnd(text, width, Style::status);
  pad(line, width - widthOf(line), Style::status);
  return line;
}

int scrollTop(int top, int selected, std::span<const int> heights, int rows) {
  const int count = static_cast<int>(heights.size());
  if (count == 0 || rows <= 0) return 0;
  selected = std::clamp(selected, 0, count - 1);
  top = std::clamp(top, 0, count - 1);
  if (selected < top) return selected;
  int used = 0;
  for (int i = top; i <= selected; ++i) used += heights[static_cast<size_t>(i)];
  while (used > rows && top < selected) used -= heights[static_cast<size_t>(top++)];
  return top;
}

std::string clipboardSequence(std::string_view bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out = "\x1b]52;c;";
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    uint32_t v = static_cast<uint32_t>(static_cast<uint8_t>(bytes[i])) << 16 |
                 static_cast<uint32_t>(static_cast<uint8_t>(bytes[i + 1])) << 8 |
                 static_cast<uint8_t>(bytes[i + 2]);
    for (int shift : {18, 12, 6, 0}) out.push_back(kAlphabet[(v >> shift) & 63]);
  }
  if (size_t rest = bytes.size() - i; rest > 0) {
    uint32_t v = static_cast<uint32_t>(static_cast<uint8_t>(bytes[i])) << 16;
    if (rest == 2) v |= static_cast<uint32_t>(static_cast<uint8_t>(bytes[i + 1])) << 8;
    out.push_back(kAlphabet[(v >> 18) & 63]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    out.push_back(rest == 2 ? kAlphabet[(v >> 6) & 63] : '=');
    out.push_back('=');
  }
  out += "\x07";
  return out;
}

}  // namespace tvl::pick
