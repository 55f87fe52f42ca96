// tvl pick [-0] [QUERY]: a full-screen search that follows every keystroke. The screen is drawn
// on the terminal device, never on standard output, which receives only the chosen paths when
// the user presses Enter (status 0); Esc or Ctrl-C leave with status 1 and print nothing.
//
// This file is the thin layer over ncurses: keys in, lines out. What the lines say comes from
// PickScreen, what the keys do from PickState, the results from PickSearch. The terminal is given
// back as it was on every way out: a normal exit, a signal (read from a signalfd, never handled
// asynchronously), or an exception, by the Screen guard's destructor.

// The wide-character interface (wget_wch, UTF-8 text) of the ncursesw library.
#define NCURSES_WIDECHAR 1
#include <curses.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "PickScreen.h"
#include "PickSearch.h"
#include "PickState.h"
#include "tarvolin/platform/Desktop.h"
#include "tarvolin/platform/TerminalDevice.h"
#include "tarvolin/query/QueryParser.h"

namespace tvl {

namespace {

using pick::Effect;
using pick::Key;
using pick::KeyPress;
using tarvolin::platform::TerminalDevice;

constexpr OptionSyntax kOptions[] = {
    {"print0", '0', "", "separate the printed paths with NUL bytes instead of newlines"},
};
constexpr CommandSyntax kSyntax{
    "tvl pick [-0] [QUERY...]",
    "Search as you type in a full-screen view on the terminal and print the chosen paths.\n"
    "Keys: up/down, page up/down, home/end move; Tab marks several; Enter prints the marked\n"
    "paths (or the selected one) and exits 0; Esc or Ctrl-C exits 1 printing nothing;\n"
    "Ctrl-O opens the selection with xdg-open; Ctrl-Y copies it to the terminal's clipboard.",
    kOptions,
    0,
};

// Ranked rows fetched per query at first; more when the selection nears the end of them.
constexpr int64_t kFirstLimit = 200;
constexpr int64_t kMostRows = 10'000;
// How long a lone Esc waits for the rest of an escape sequence.
constexpr int kEscapeDelayMs = 25;

// ncurses on the terminal device, ended on every way out of its scope.
class Screen {
 public:
  explicit Screen(const TerminalDevice& terminal) {
    // The terminal speaks UTF-8 when the environment says so; otherwise assume it does, as
    // nearly every terminal today does, rather than draw every non-ASCII name as escapes.
    std::setlocale(LC_CTYPE, "");
    if (MB_CUR_MAX == 1) std::setlocale(LC_CTYPE, "C.UTF-8");
    screen_ = newterm(nullptr, terminal.file(), terminal.file());
    if (screen_ == nullptr) {
      output::errorLine("tvl pick: this terminal type is not known (TERM)");
      throw ExitRequest{2};
    }
    set_term(screen_);
    raw();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(kEscapeDelayMs);
    const char* noColor = std::getenv("NO_COLOR");
    colors_ = has_colors() && (noColor == nullptr || noColor[0] == '\0');
    if (colors_) {
      start_color();
      use_default_colors();
      init_pair(1, COLOR_YELLOW, -1);   // matched text
      init_pair(2, COLOR_CYAN, -1);     // prompt
      init_pair(3, COLOR_MAGENTA, -1);  // escapes
      init_pair(4, COLOR_GREEN, -1);    // marks
    }
  }
  ~Screen() {
    endwin();
    delscreen(screen_);
  }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  attr_t attributes(pick::Style style) const {
    switch (style) {
      case pick::Style::plain:
        return A_NORMAL;
      case pick::Style::folder:
      case pick::Style::detail:
        return A_DIM;
      case pick::Style::match:
        return colors_ ? COLOR_PAIR(1) | A_BOLD : A_BOLD | A_UNDERLINE;
      case pick::Style::escape:
        return colors_ ? COLOR_PAIR(3) : A_UNDERLINE;
      case pick::Style::marker:
        return colors_ ? COLOR_PAIR(4) | A_BOLD : A_BOLD;
      case pick::Style::prompt:
        return colors_ ? COLOR_PAIR(2) | A_BOLD : A_BOLD;
      case pick::Style::status:
        return A_REVERSE;
    }
    return A_NORMAL;
  }

  void drawLine(int y, const pick::Line& line, attr_t extra = A_NORMAL) const {
    move(y, 0);
    for (const pick::Segment& segment : line) {
      attrset(attributes(segment.style) | extra);
      addnstr(segment.text.data(), static_cast<int>(segment.text.size()));
    }
    attrset(A_NORMAL);
  }

 private:
  SCREEN* screen_ = nullptr;
  bool colors_ = false;
};

std::optional<KeyPress> keyFor(int kind, wint_t code) {
  if (kind == KEY_CODE_YES) {
    switch (code) {
      case KEY_UP:
        return KeyPress{Key::up};
      case KEY_DOWN:
        return KeyPress{Key::down};
      case KEY_PPAGE:
        return KeyPress{Key::pageUp};
      case KEY_NPAGE:
        return KeyPress{Key::pageDown};
      case KEY_HOME:
        return KeyPress{Key::home};
      case KEY_END:
        return KeyPress{Key::end};
      case KEY_BACKSPACE:
        return KeyPress{Key::backspace};
      case KEY_ENTER:
        return KeyPress{Key::enter};
      default:
        return std::nullopt;
    }
  }
  switch (code) {
    case 27:
    case 3:
      return KeyPress{Key::cancel};
    case '\r':
    case '\n':
      return KeyPress{Key::enter};
    case '\t':
      return KeyPress{Key::tab};
    case 127:
    case 8:
      return KeyPress{Key::backspace};
    case 15:
      return KeyPress{Key::open};
    case 25:
      return KeyPress{Key::copy};
    case 21:
      return KeyPress{Key::clearQuery};
    case 23:
      return KeyPress{Key::deleteWord};
    case 12:
      return KeyPress{Key::redraw};
    case 16:
      return KeyPress{Key::up};
    case 14:
      return KeyPress{Key::down};
    default:
      if (code >= 0x20) return KeyPress{Key::character, static_cast<char32_t>(code)};
      return std::nullopt;
  }
}

// What the run ends with: the status, and the paths to print for status 0.
struct Outcome {
  int status = 1;
  std::vector<std::string> selection;
};

class Picker {
 public:
  Picker(const Context& context, const TerminalDevice& terminal, std::string query)
      : terminal_(terminal),
        search_(context, [&terminal] { terminal.wake(); }),
        state_(std::move(query)) {}

  Outcome run() {
    Screen screen(terminal_);
    screen_ = &screen;
    if (!state_.query().empty()) requery();
    draw();
    int idleReads = 0;
    for (;;) {
      switch (terminal_.wait(-1)) {
        case TerminalDevice::Ready::timeout:
          break;
        case TerminalDevice::Ready::signal:
          if (std::optional<Outcome> outcome = onSignal(terminal_.takeSignal())) return *outcome;
          break;
        case TerminalDevice::Ready::wakeup:
          terminal_.clearWakeup();
          if (std::optional<pick::PickSearch::Answer> answer = search_.takeContentRows()) {
            showAnswer(std::move(*answer), /*fresh=*/false);
            draw();
          }
          break;
        case TerminalDevice::Ready::input: {
          bool readAny = false;
          if (std::optional<Outcome> outcome = onInput(readAny)) return *outcome;
          // A terminal that hung up stays readable but gives no keys.
          idleReads = readAny ? 0 : idleReads + 1;
          if (idleReads > 100) return Outcome{1, {}};
          break;
        }
      }
    }
  }

 private:
  std::optional<Outcome> onSignal(int signal) {
    switch (signal) {
      case SIGWINCH:
        if (std::optional<TerminalDevice::Size> size = terminal_.size()) {
          resizeterm(size->rows, size->columns);
        }
        clearok(curscr, TRUE);
        draw();
        return std::nullopt;
      case SIGINT:
        return Outcome{1, {}};
      case 0:
        return std::nullopt;
      default:
        return Outcome{128 + signal, {}};
    }
  }

  std::optional<Outcome> onInput(bool& readAny) {
    bool changedQuery = false;
    bool changedView = false;
    for (;;) {
      wint_t code = 0;
      int kind = wget_wch(stdscr, &code);
      if (kind == ERR) break;
      readAny = true;
      std::optional<KeyPress> press = keyFor(kind, code);
      if (!press) continue;
      message_.clear();
      switch (state_.apply(*press, rows_, resultLines())) {
        case Effect::none:
          break;
        case Effect::moved:
          changedView = true;
          break;
        case Effect::requery:
          changedQuery = true;
          break;
        case Effect::accept:
          return Outcome{0, state_.selection(rows_)};
        case Effect::cancel:
          return Outcome{1, {}};
        case Effect::open:
          message_ = tarvolin::platform::startDetached("xdg-open", {selectedPath()})
                         ? "opened"
                         : "xdg-open could not be started";
          changedView = true;
          break;
        case Effect::copy: {
          std::string text;
          for (const std::string& path : state_.selection(rows_)) {
            if (!text.empty()) text.push_back('\n');
            text += path;
          }
          terminal_.writeRaw(pick::clipboardSequence(text));
          message_ = "copied";
          changedView = true;
          break;
        }
        case Effect::redraw:
          clearok(curscr, TRUE);
          changedView = true;
          break;
      }
    }
    if (changedQuery) {
      limit_ = kFirstLimit;
      requery();
    } else if (nearTheEnd()) {
      limit_ = std::min(limit_ * 4, kMostRows);
      int selected = state_.selected();
      requery();
      // Same query, longer list: keep the place.
      for (int i = 0; i < selected; ++i) state_.apply(KeyPress{Key::down}, rows_, 1);
    }
    if (changedQuery || changedView) draw();
    return std::nullopt;
  }

  // The selection is within a page of the last fetched row while more rows exist.
  bool nearTheEnd() const {
    return limit_ < kMostRows && total_ > static_cast<int64_t>(rows_.size()) &&
           static_cast<int64_t>(rows_.size()) == limit_ &&
           state_.selected() + resultLines() >= static_cast<int>(rows_.size());
  }

  void requery() {
    words_ = pick::highlightWords(tarvolin::QueryParser::parse(state_.query()));
    showAnswer(search_.search(state_.query(), limit_), /*fresh=*/true);
  }

  void showAnswer(pick::PickSearch::Answer answer, bool fresh) {
    std::string selected = fresh ? std::string() : selectedPath();
    rows_ = std::move(answer.rows);
    total_ = answer.total;
    status_.total = answer.total;
    status_.elapsedMs = answer.elapsedMs;
    status_.live = answer.live;
    status_.searchingContents = answer.searchingContents;
    if (!answer.message.empty()) message_ = answer.message;
    state_.resultsChanged();
    // Hits arriving while the user looks at one keep that one selected.
    if (!selected.empty()) {
      auto at = std::find_if(rows_.begin(), rows_.end(),
                             [&](const pick::Row& row) { return row.path == selected; });
      for (auto i = rows_.begin(); i != at && at != rows_.end(); ++i) {
        state_.apply(KeyPress{Key::down}, rows_, 1);
      }
    }
  }

  std::string selectedPath() const {
    auto index = static_cast<size_t>(state_.selected());
    return index < rows_.size() ? rows_[index].path : std::string();
  }

  int resultLines() const { return std::max(0, LINES - 2); }

  void draw() {
    const int width = COLS;
    const int lines = resultLines();
    erase();
    std::vector<int> heights;
    heights.reserve(rows_.size());
    for (const pick::Row& row : rows_) heights.push_back(row.height());
    int top = pick::scrollTop(state_.top(), state_.selected(), heights, lines);
    state_.setTop(top);
    search_.fillAttributes(rows_, static_cast<size_t>(top), static_cast<size_t>(top + lines));
    int y = 1;
    for (size_t i = static_cast<size_t>(top); i < rows_.size() && y <= lines; ++i) {
      const pick::Row& row = rows_[i];
      bool selected = static_cast<int>(i) == state_.selected();
      screen_->drawLine(y++,
                        pick::resultLine(row, words_, width, selected, state_.isMarked(row.path)),
                        selected ? A_BOLD : A_NORMAL);
      if (row.hit && y <= lines) screen_->drawLine(y++, pick::hitLine(*row.hit, width));
    }
    status_.indexAgeSeconds = search_.indexAgeSeconds();
    status_.marked = state_.markCount();
    status_.message = message_;
    if (LINES >= 2) screen_->drawLine(LINES - 1, pick::statusLine(status_, width - 1));
    pick::Line query = pick::queryLine(state_.query(), width);
    screen_->drawLine(0, query);
    move(0, std::min(width - 1, pick::widthOf(query)));
    refresh();
  }

  const TerminalDevice& terminal_;
  pick::PickSearch search_;
  pick::PickState state_;
  const Screen* screen_ = nullptr;
  std::vector<pick::Row> rows_;
  std::vector<std::string> words_;
  int64_t total_ = 0;
  int64_t limit_ = kFirstLimit;
  pick::Status status_;
  std::string message_;
};

}  // namespace

int runPick(const Context& context) {
  ParsedOptions options = parseOptions(kSyntax, context.words);
  std::string query;
  for (const std::string& word : options.operands()) {
    if (!query.empty()) query.push_back(' ');
    query += word;
  }
  std::optional<TerminalDevice> terminal = TerminalDevice::open();
  if (!terminal) {
    output::errorLine("tvl pick: needs a terminal to draw on (/dev/tty)");
    return 2;
  }
  Outcome outcome;
  {
    Picker picker(context, *terminal, std::move(query));
    outcome = picker.run();
  }
  if (outcome.status != 0) return outcome.status;
  bool nul = options.has("print0");
  for (const std::string& path : outcome.selection) {
    if (nul) {
      output::format("%s%c", path.c_str(), '\0');
    } else {
      output::line(path);
    }
  }
  return 0;
}

}  // namespace tvl
