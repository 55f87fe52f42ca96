// The screen model of tvl pick: escaping of names a terminal would interpret, cutting long paths
// in the middle while keeping the name, highlights, columns that give way on narrow terminals,
// scrolling, and the key handling with its marks.

#include <gtest/gtest.h>

// The tool's sources are not part of a library; the picker's model is compiled into the tests
// directly (it needs nothing but the engine).
#include "../../tools/tvl/PickScreen.cpp"
#include "../../tools/tvl/PickState.cpp"
#include "tarvolin/query/QueryParser.h"

namespace tvl::pick {
namespace {

std::vector<std::string> words(std::initializer_list<const char*> list) {
  return {list.begin(), list.end()};
}

// "x.x" marks the first and last byte.
std::vector<bool> marks(std::string_view pattern) {
  std::vector<bool> mask;
  for (char c : pattern) mask.push_back(c == 'x');
  return mask;
}

TEST(PickScreenTest, EscapesWhatATerminalWouldInterpret) {
  struct Case {
    std::string bytes;
    std::string shown;
  };
  const Case cases[] = {
      {"plain.txt", "plain.txt"},
      {"caf\xC3\xA9.md", "caf\xC3\xA9.md"},
      {"a\nb", "a\\x0ab"},
      {"\x1b[31mred", "\\x1b[31mred"},
      {"del\x7f", "del\\x7f"},
      {"\xff\xfe.bin", "\\xff\\xfe.bin"},
      {"cut\xE2\x82", "cut\\xe2\\x82"},                     // a truncated sequence
      {"nel\xC2\x85", "nel\\xc2\\x85"},                     // a C1 control
      {"evil\xE2\x80\xAEtxt.exe", "evil\\u{202E}txt.exe"},  // right-to-left override
      {"e\xCC\x81", "e\xCC\x81"},        // a combining accent stays with its letter
      {"\xEF\xBF\xBD", "\xEF\xBF\xBD"},  // a real replacement character is shown
  };
  for (const Case& c : cases) EXPECT_EQ(escapeForDisplay(c.bytes), c.shown) << c.bytes;
}

TEST(PickScreenTest, LongPathsLoseTheirMiddleAndKeepTheName) {
  struct Case {
    std::string path;
    int width;
    std::string shown;
  };
  const Case cases[] = {
      {"/home/u/docs/report.txt", 40, "/home/u/docs/report.txt"},
      {"/home/u/docs/report.txt", 23, "/home/u/docs/report.txt"},
      {"/home/u/docs/report.txt", 15, "/h\u2026s/report.txt"},
      {"/home/u/docs/report.txt", 11, "\u2026report.txt"},
      {"/home/u/docs/report.txt", 8, "rep\u2026.txt"},
      {"/home/u/docs/report.txt", 1, "\u2026"},
      {"/home/u/docs/report.txt", 0, ""},
      {"/a/\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E.txt", 9, "\xE6\x97\xA5\xE6\x9C\xAC\u2026.txt"},
      {"/a/\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E.txt", 8, "\xE6\x97\xA5\u2026.txt"},
      {"/x/a\nb", 20, "/x/a\\x0ab"},
      {"/music/folder/", 8, "\u2026folder/"},
  };
  for (const Case& c : cases) {
    Line line = pathLine(c.path, {}, c.width);
    EXPECT_EQ(textOf(line), c.shown) << c.path << " at " << c.width;
    EXPECT_LE(widthOf(line), std::max(0, c.width));
  }
}

TEST(PickScreenTest, EveryWidthFitsAndKeepsTheExtension) {
  const std::string paths[] = {
      "/srv/projects/alpha/src/engine/very_long_component_name/main_loop.cpp",
      "/data/\xE5\x86\x99\xE7\x9C\x9F/\xE6\x97\x85\xE8\xA1\x8C\xE3\x81\xAE\xE5\x86\x99\xE7"
      "\x9C\x9F.jpeg",
      "/tmp/bad\xff\xfe/name\x01with\x02controls.log",
  };
  for (const std::string& path : paths) {
    for (int width = 0; width <= 90; ++width) {
      Line line = pathLine(path, {}, width);
      EXPECT_LE(widthOf(line), width) << path;
      std::string shown = textOf(line);
      std::string extension = path.substr(path.rfind('.'));
      if (width >= 12) {
        EXPECT_TRUE(shown.ends_with(extension)) << shown;
      }
    }
  }
}

TEST(PickScreenTest, FolderIsDimmedAndMatchesAreMarkedInTheNameOnly) {
  Line line = pathLine("/report/My Report.txt", words({"report"}), 60);
  EXPECT_EQ(line, (Line{{"/report/", Style::folder},
                        {"My ", Style::plain},
                        {"Report", Style::match},
                        {".txt", Style::plain}}));
  // Letters found in order when the word is not there whole, as a fuzzy match finds them.
  std::vector<bool> fuzzy = highlightMask("report.txt", words({"rpt"}));
  EXPECT_EQ(fuzzy, marks("x.x..x...."));
  EXPECT_EQ(highlightMask("abc", words({"xyz"})), std::vector<bool>(3, false));
  std::vector<bool> every = highlightMask("a-a", words({"A"}));
  EXPECT_EQ(every, marks("x.x"));
}

TEST(PickScreenTest, HighlightWordsComeFromThePositiveTextTerms) {
  auto query = tarvolin::QueryParser::parse("foo ext:md,txt !bar \"a b\" size:>1kb");
  std::vector<std::string> found = highlightWords(query);
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, words({".md", ".txt", "a b", "foo"}));
  EXPECT_EQ(highlightWords(tarvolin::QueryParser::parse("one | two")), words({"one", "two"}));
}

TEST(PickScreenTest, ColumnsGiveWayOnNarrowTerminals) {
  Row row{
      .path = "/home/u/report.txt", .attributesKnown = true, .size = 1536, .mtime = 86400 * 400};
  for (int width : {1, 2, 10, 39, 40, 59, 60, 100, 200}) {
    Line line = resultLine(row, {}, width, false, false);
    EXPECT_EQ(widthOf(line), width) << width;
    std::string text = textOf(line);
    EXPECT_EQ(text.find("1.5 K") != std::string::npos, width >= 40) << text;
    EXPECT_EQ(text.find(formatDate(row.mtime)) != std::string::npos, width >= 60) << text;
  }
  std::string chosen = textOf(resultLine(row, {}, 80, true, true));
  EXPECT_TRUE(chosen.starts_with(">*/home/u/report.txt")) << chosen;
  // Unknown attributes and folders leave their columns blank.
  Row folder{.path = "/home/u/", .isDirectory = true, .attributesKnown = true, .mtime = 0};
  std::string blank = textOf(resultLine(folder, {}, 80, false, false));
  EXPECT_EQ(blank.find_first_not_of(' ', 10), std::string::npos);
}

TEST(PickScreenTest, SizesAndAgesAreShort) {
  const std::pair<uint64_t, const char*> sizes[] = {
      {0, "0 B"},          {1023, "1023 B"},   {1024, "1.0 K"},       {1536, "1.5 K"},
      {10 * 1024, "10 K"}, {1048575, "1.0 M"}, {12ull << 20, "12 M"}, {(3ull << 30) + 1, "3.0 G"},
      {~0ull, "16 E"},
  };
  for (auto [bytes, shown] : sizes) {
    EXPECT_EQ(formatSize(bytes), shown) << bytes;
    EXPECT_LE(formatSize(bytes).size(), 6u);
  }
  const std::pair<int64_t, const char*> ages[] = {
      {0, "just now"}, {42, "42 s"}, {300, "5 min"}, {3 * 3600 + 5, "3 h"}, {3 * 86400, "3 days"}};
  for (auto [seconds, shown] : ages) EXPECT_EQ(formatAge(seconds), shown);
}

TEST(PickScreenTest, QueryAndStatusLinesFitTheirWidth) {
  EXPECT_EQ(textOf(queryLine("abc", 20)), "> abc");
  Line longQuery = queryLine("a very long query that does not fit", 12);
  EXPECT_EQ(textOf(longQuery), "> \u2026 not fit");
  EXPECT_EQ(widthOf(longQuery), 11);  // the last cell holds the cursor
  EXPECT_EQ(textOf(queryLine("a\x1b", 20)), "> a\\x1b");

  Status status{.total = 1234, .elapsedMs = 3.216, .indexAgeSeconds = 300, .marked = 2};
  std::string text = textOf(statusLine(status, 100));
  EXPECT_EQ(text.substr(0, text.find_last_not_of(' ') + 1),
            "  1234 matches \u00b7 3.22 ms \u00b7 index 5 min old \u00b7 2 marked");
  status = {.total = 1, .live = true, .indexAgeSeconds = 300, .message = "copied"};
  text = textOf(statusLine(status, 100));
  EXPECT_NE(text.find("1 match \u00b7"), std::string::npos);
  EXPECT_NE(text.find("live \u00b7 copied"), std::string::npos);
  EXPECT_EQ(text.find("index"), std::string::npos);
  for (int width : {0, 1, 5, 30}) EXPECT_EQ(widthOf(statusLine(status, width)), width);
}

TEST(PickScreenTest, ScrollingKeepsTheSelectionInView) {
  struct Case {
    int top, selected;
    std::vector<int> heights;
    int rows;
    int expected;
  };
  const Case cases[] = {
      {0, 0, {1, 1, 1, 1, 1}, 3, 0},
      {0, 2, {1, 1, 1, 1, 1}, 3, 0},
      {0, 3, {1, 1, 1, 1, 1}, 3, 1},
      {2, 4, {1, 1, 1, 1, 1}, 3, 2},
      {3, 1, {1, 1, 1, 1, 1}, 3, 1},
      {0, 2, {2, 2, 2}, 4, 1},  // two-line rows (content hits)
      {0, 1, {2, 2, 2}, 1, 1},  // a row taller than the view still comes first
      {9, 0, {}, 3, 0},         // no rows
      {0, 7, {1, 1}, 3, 0},     // a stale selection is clamped
  };
  for (const Case& c : cases) {
    EXPECT_EQ(scrollTop(c.top, c.selected, c.heights, c.rows), c.expected)
        << c.top << " " << c.selected << " " << c.rows;
  }
}

TEST(PickScreenTest, ClipboardSequenceCarriesBase64) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"/a b\xff", "L2EgYv8="}};
  for (const auto& [bytes, encoded] : cases) {
    EXPECT_EQ(clipboardSequence(bytes), "\x1b]52;c;" + encoded + "\x07");
  }
}

std::vector<Row> rows(int count) {
  std::vector<Row> made;
  for (int i = 0; i < count; ++i) made.push_back(Row{.path = "/r" + std::to_string(i)});
  return made;
}

TEST(PickStateTest, EditingTheQuery) {
  PickState state("ab");
  std::vector<Row> none;
  EXPECT_EQ(state.apply({Key::character, U'\u00e9'}, none, 5), Effect::requery);
  EXPECT_EQ(state.query(), "ab\xC3\xA9");
  EXPECT_EQ(state.apply({Key::backspace}, none, 5), Effect::requery);
  EXPECT_EQ(state.query(), "ab");
  EXPECT_EQ(state.apply({Key::character, U'\x01'}, none, 5), Effect::none);
  state.apply({Key::character, U' '}, none, 5);
  state.apply({Key::character, U'c'}, none, 5);
  state.apply({Key::character, U' '}, none, 5);
  EXPECT_EQ(state.apply({Key::deleteWord}, none, 5), Effect::requery);
  EXPECT_EQ(state.query(), "ab ");
  EXPECT_EQ(state.apply({Key::clearQuery}, none, 5), Effect::requery);
  EXPECT_EQ(state.apply({Key::backspace}, none, 5), Effect::none);
  EXPECT_EQ(state.apply({Key::clearQuery}, none, 5), Effect::none);
  EXPECT_EQ(state.query(), "");
}

TEST(PickStateTest, MovingThroughTheResults) {
  std::vector<Row> ten = rows(10);
  struct Step {
    Key key;
    int selected;
    Effect effect;
  };
  const Step steps[] = {
      {Key::up, 0, Effect::none},        {Key::down, 1, Effect::moved},
      {Key::pageDown, 4, Effect::moved}, {Key::end, 9, Effect::moved},
      {Key::down, 9, Effect::none},      {Key::pageUp, 6, Effect::moved},
      {Key::home, 0, Effect::moved},     {Key::pageUp, 0, Effect::none},
  };
  PickState state;
  for (const Step& step : steps) {
    EXPECT_EQ(state.apply({step.key}, ten, 3), step.effect) << static_cast<int>(step.key);
    EXPECT_EQ(state.selected(), step.selected) << static_cast<int>(step.key);
  }
  std::vector<Row> none;
  EXPECT_EQ(state.apply({Key::end}, none, 3), Effect::none);
  EXPECT_EQ(state.apply({Key::enter}, none, 3), Effect::none);
  EXPECT_EQ(state.apply({Key::open}, none, 3), Effect::none);
  EXPECT_EQ(state.apply({Key::cancel}, none, 3), Effect::cancel);
}

TEST(PickStateTest, MarksSurviveNewResultsAndArePrintedInOrder) {
  std::vector<Row> five = rows(5);
  PickState state;
  EXPECT_EQ(state.selection(five), words({"/r0"}));
  state.apply({Key::down}, five, 3);
  state.apply({Key::down}, five, 3);
  EXPECT_EQ(state.apply({Key::tab}, five, 3), Effect::moved);  // marks /r2, moves to /r3
  state.apply({Key::home}, five, 3);
  state.apply({Key::tab}, five, 3);  // marks /r0
  EXPECT_EQ(state.selected(), 1);
  EXPECT_TRUE(state.isMarked("/r2"));
  EXPECT_EQ(state.selection(five), words({"/r2", "/r0"}));

  std::vector<Row> other = rows(2);
  state.resultsChanged();
  EXPECT_EQ(state.selected(), 0);
  EXPECT_EQ(state.markCount(), 2);
  EXPECT_EQ(state.apply({Key::tab}, other, 3), Effect::moved);  // unmarks /r0
  EXPECT_EQ(state.selection(other), words({"/r2"}));
  EXPECT_EQ(state.apply({Key::enter}, other, 3), Effect::accept);
}

}  // namespace
}  // namespace tvl::pick
