#pragma once
// What the keys of `tvl pick` do, apart from any terminal: the query being typed, the selected
// row, the scroll position and the marked paths. The drawing layer turns terminal input into
// Keys, hands them here and acts on the returned Effect (search again, print and leave, ...).
//
// Marks are kept by path, in the order they were made, so they survive a change of the query;
// the selection is a row number and goes back to the first row when the results change.
//
// One thread.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "PickScreen.h"

namespace tvl::pick {

enum class Key : uint8_t {
  character,  // a printable character (in KeyPress::character)
  backspace,
  deleteWord,  // Ctrl-W
  clearQuery,  // Ctrl-U
  up,
  down,
  pageUp,
  pageDown,
  home,
  end,
  tab,  // marks or unmarks the selected row
  enter,
  cancel,  // Esc, Ctrl-C
  open,    // Ctrl-O
  copy,    // Ctrl-Y
  redraw,  // Ctrl-L
};

struct KeyPress {
  Key key = Key::redraw;
  char32_t character = 0;
};

enum class Effect : uint8_t {
  none,     // nothing changed
  moved,    // the selection, the scroll position or the marks changed: redraw
  requery,  // the query changed: search again
  accept,   // print `selection()` and leave with status 0
  cancel,   // leave with status 1, printing nothing
  open,     // open the selected path
  copy,     // copy the selected path
  redraw,   // redraw everything
};

class PickState {
 public:
  explicit PickState(std::string query = {}) : query_(std::move(query)) {}

  /// Applies one key to the state, given the rows shown and how many lines a page holds.
  Effect apply(const KeyPress& press, std::span<const Row> rows, int pageRows);
  /// New results for the current query: the first row is selected again.
  void resultsChanged();

  const std::string& query() const { return query_; }
  int selected() const { return selected_; }
  int top() const { return top_; }
  void setTop(int top) { top_ = top; }
  bool isMarked(const std::string& path) const;
  int64_t markCount() const { return static_cast<int64_t>(marks_.size()); }
  /// What Enter prints: the marked paths in the order they were marked, else the selected row's
  /// path, else nothing.
  std::vector<std::string> selection(std::span<const Row> rows) const;

 private:
  std::string query_;
  int selected_ = 0;
  int top_ = 0;
  std::vector<std::string> marks_;
};

}  // namespace tvl::pick
