#pragma once
// The screen of `tvl pick` as plain values: what each line says, in which style, cut to which
// width. Nothing here touches the terminal; the drawing layer (PickCommand.cpp) only copies these
// lines to the screen, so every rule about cutting, escaping and highlighting is tested here.
//
// Names are raw bytes. Whatever a terminal would interpret (control characters, invalid UTF-8,
// characters that reorder text) is shown as a visible escape such as "\x1b", while the selection
// printed on exit keeps the raw bytes. Widths are terminal cells.
//
// Plain functions without state: any thread.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/query/Query.h"

namespace tvl::pick {

/// One result as the view shows it.
struct Row {
  std::string path;  // raw bytes, as printed on selection
  bool isDirectory = false;
  bool attributesKnown = false;  // size and mtime below are real
  uint64_t size = 0;
  int64_t mtime = 0;  // seconds since 1970
  struct ContentHit {
    int64_t line = 0;
    std::string preview;
  };
  std::optional<ContentHit> hit;  // the matching line of a contains: search

  /// Lines the row takes on screen: the path, and the matching line when there is one.
  int height() const { return hit ? 2 : 1; }
};

enum class Style : uint8_t {
  plain,
  folder,  // the folder part of a path, dimmed
  match,   // the part of the name the query matched
  escape,  // a byte or character shown as an escape
  detail,  // columns and content lines
  marker,  // the selection and mark signs
  prompt,  // the query line's sign
  status,  // the status line
};

struct Segment {
  std::string text;
  Style style = Style::plain;

  friend bool operator==(const Segment&, const Segment&) = default;
};
using Line = std::vector<Segment>;

/// The line's text without styles.
std::string textOf(const Line& line);
/// Cells the line takes.
int widthOf(const Line& line);

/// `bytes` as it is safe to show: printable characters as they are, invalid UTF-8 and control
/// bytes as "\xHH", format characters that reorder or hide text as "\u{HHHH}".
std::string escapeForDisplay(std::string_view bytes);

/// The words whose occurrences in a name are highlighted: the plain words and quoted phrases of
/// the query, and each extension of an `ext:` term with its dot. Negated terms give none.
std::vector<std::string> highlightWords(const tarvolin::Query& query);

/// Per byte of `name`, whether it is highlighted: every occurrence of each word (ASCII case
/// folded); a word found nowhere marks its letters in order as a fuzzy match would find them.
std::vector<bool> highlightMask(std::string_view name, std::span<const std::string> words);

/// The path in at most `width` cells: the folder dimmed and the name plain with its highlights.
/// A path too long for the width loses the middle of its folder, then the middle of its name,
/// replaced by "…"; the end of the name (the extension) is always kept.
Line pathLine(std::string_view path, std::span<const std::string> words, int width);

/// "0 B", "512 B", "1.5 K", "12 M", "3.0 G" (binary units), at most 6 characters.
std::string formatSize(uint64_t bytes);
/// "YYYY-MM-DD" in the local time zone.
std::string formatDate(int64_t seconds);
/// "just now", "42 s", "5 min", "3 h", "2 days": how old something is.
std::string formatAge(int64_t seconds);

/// One result line of exactly `width` cells: a sign for the selected row (">") and one for a
/// marked row ("*"), the path, then size and date columns when the width leaves room for them.
Line resultLine(const Row& row, std::span<const std::string> words, int width, bool selected,
                bool marked);
/// The matching line of a contains: result, indented under its path.
Line hitLine(const Row::ContentHit& hit, int width);

/// The query line: "> " and the query; a query wider than the line shows its end.
Line queryLine(std::string_view query, int width);

struct Status {
  int64_t total = 0;
  double elapsedMs = 0;
  bool live = false;                       // answered by the service
  std::optional<int64_t> indexAgeSeconds;  // how old the index file is
  int64_t marked = 0;
  bool searchingContents = false;  // a contains: search is still reading files
  std::string message;             // the last action's outcome, e.g. "copied"
};
/// "1,234 matches · 3.21 ms · index 5 min old" and the rest of the status, cut to `width`.
Line statusLine(const Status& status, int width);

/// The first row to show so that `selected` is visible in `rows` lines, moving as little as
/// possible from `top`. `heights` holds every row's height.
int scrollTop(int top, int selected, std::span<const int> heights, int rows);

/// The OSC 52 sequence that puts `bytes` on the terminal's clipboard.
std::string clipboardSequence(std::string_view bytes);

}  // namespace tvl::pick
