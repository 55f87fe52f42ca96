#include "PickState.h"

#include <algorithm>

#include "tarvolin/platform/Unicode.h"

namespace tvl::pick {

namespace {

// The byte where the last character of `text` begins (a lead byte, or where broken bytes start).
size_t lastCharacterStart(const std::string& text) {
  size_t at = text.size();
  while (at > 0) {
    --at;
    auto byte = static_cast<uint8_t>(text[at]);
    if ((byte & 0xC0) != 0x80 || text.size() - at >= 4) break;
  }
  return at;
}

bool isBlank(char c) { return c == ' ' || c == '\t'; }

}  // namespace

Effect PickState::apply(const KeyPress& press, std::span<const Row> rows, int pageRows) {
  const int count = static_cast<int>(rows.size());
  const int page = std::max(1, pageRows);
  auto moveTo = [&](int row) {
    int target = count == 0 ? 0 : std::clamp(row, 0, count - 1);
    if (target == selected_) return Effect::none;
    selected_ = target;
    return Effect::moved;
  };
  switch (press.key) {
    case Key::character:
      if (press.character < 0x20 || press.character == 0x7F) return Effect::none;
      tarvolin::platform::appendCodePoint(query_, press.character);
      return Effect::requery;
    case Key::backspace:
      if (query_.empty()) return Effect::none;
      query_.erase(lastCharacterStart(query_));
      return Effect::requery;
    case Key::deleteWord: {
      if (query_.empty()) return Effect::none;
      size_t end = query_.size();
      while (end > 0 && isBlank(query_[end - 1])) --end;
      while (end > 0 && !isBlank(query_[end - 1])) --end;
      query_.erase(end);
      return Effect::requery;
    }
    case Key::clearQuery:
      if (query_.empty()) return Effect::none;
      query_.clear();
      return Effect::requery;
    case Key::up:
      return moveTo(selected_ - 1);
    case Key::down:
      return moveTo(selected_ + 1);
    case Key::pageUp:
      return moveTo(selected_ - page);
    case Key::pageDown:
      return moveTo(selected_ + page);
    case Key::home:
      return moveTo(0);
    case Key::end:
      return moveTo(count - 1);
    case Key::tab: {
      if (count == 0) return Effect::none;
      const std::string& path = rows[static_cast<size_t>(selected_)].path;
      auto found = std::find(marks_.begin(), marks_.end(), path);
      if (found != marks_.end()) {
        marks_.erase(found);
      } else {
        marks_.push_back(path);
      }
      moveTo(selected_ + 1);
      return Effect::moved;
    }
    case Key::enter:
      return selection(rows).empty() ? Effect::none : Effect::accept;
    case Key::cancel:
      return Effect::cancel;
    case Key::open:
      return count == 0 ? Effect::none : Effect::open;
    case Key::copy:
      return count == 0 ? Effect::none : Effect::copy;
    case Key::redraw:
      return Effect::redraw;
  }
  return Effect::none;
}

void PickState::resultsChanged() {
  selected_ = 0;
  top_ = 0;
}

bool PickState::isMarked(const std::string& path) const {
  return std::find(marks_.begin(), marks_.end(), path) != marks_.end();
}

std::vector<std::string> PickState::selection(std::span<const Row> rows) const {
  if (!marks_.empty()) return marks_;
  if (selected_ < 0 || static_cast<size_t>(selected_) >= rows.size()) return {};
  return {rows[static_cast<size_t>(selected_)].path};
}

}  // namespace tvl::pick
