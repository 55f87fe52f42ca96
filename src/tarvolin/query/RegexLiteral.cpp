#include "tarvolin/query/RegexLiteral.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <vector>

#include "tarvolin/platform/Regex.h"
#include "tarvolin/platform/Unicode.h"
#include "tarvolin/query/detail/AsciiFold.h"
#include "tarvolin/query/detail/Characters.h"

namespace tarvolin::RegexLiteral {

namespace {

using Characters = std::span<const std::string_view>;
using tarvolin::detail::isCharacter;

constexpr size_t npos = static_cast<size_t>(-1);

bool is(Characters c, size_t i, char ascii) { return i < c.size() && isCharacter(c[i], ascii); }

bool isAsciiAlphanumeric(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isHexDigit(Characters c, size_t i) {
  if (i >= c.size() || c[i].size() != 1) return false;
  char d = c[i][0];
  return (d >= '0' && d <= '9') || ((d | 0x20) >= 'a' && (d | 0x20) <= 'f');
}

bool isDigitInRange(Characters c, size_t i, char last) {
  return i < c.size() && c[i].size() == 1 && c[i][0] >= '0' && c[i][0] <= last;
}

// Index just past the "\E" that ends quoted text starting at `i`, or the end of the pattern.
size_t skipQuoted(Characters c, size_t i) {
  for (; i < c.size(); ++i) {
    if (is(c, i, '\\') && is(c, i + 1, 'E')) return i + 2;
  }
  return c.size();
}

// Index just past the escape sequence whose "\" is at `i`: "\c" takes one more character
// (any character, "]" and "|" included), "\Q" runs to its "\E", others take one.
size_t escapeEnd(Characters c, size_t i) {
  if (is(c, i + 1, 'Q')) return skipQuoted(c, i + 2);
  if (is(c, i + 1, 'c')) return std::min(i + 3, c.size());
  return i + 2;
}

// Index just past the first `close` at or after `i`, or npos.
size_t skipTo(Characters c, size_t i, char close) {
  for (; i < c.size(); ++i) {
    if (is(c, i, close)) return i + 1;
  }
  return npos;
}

// A POSIX class name inside a class, "[:alpha:]", with `i` at the ":" (or "." or "="). Returns
// the index past its "]", or npos when the text is no such name (the "[" is then literal).
size_t posixClassEnd(Characters c, size_t i) {
  const char terminator = c[i][0];
  for (size_t p = i + 1; p + 1 < c.size(); ++p) {
    if (is(c, p, '\\') && (is(c, p + 1, ']') || is(c, p + 1, '\\'))) {
      ++p;
    } else if ((is(c, p, '[') && is(c, p + 1, terminator)) || is(c, p, ']')) {
      return npos;
    } else if (is(c, p, terminator) && is(c, p + 1, ']')) {
      return p + 2;
    }
  }
  return npos;
}

// A class starting with "[" at `i`: the index past its closing "]", or npos. Follows the
// expression engine's reading: "]" right after "[" or "[^" is a member, escapes and quoted text
// are members, and "[:name:]" is one member.
size_t skipClass(Characters c, size_t i) {
  size_t j = i + 1;
  bool negated = false;
  for (;;) {
    if (is(c, j, '\\') && is(c, j + 1, 'E')) {
      j += 2;
    } else if (is(c, j, '\\') && is(c, j + 1, 'Q') && is(c, j + 2, '\\') && is(c, j + 3, 'E')) {
      j += 4;
    } else if (!negated && is(c, j, '^')) {
      negated = true;
      ++j;
    } else {
      break;
    }
  }
  if (is(c, j, ']')) ++j;
  while (j < c.size()) {
    if (is(c, j, '\\')) {
      j = escapeEnd(c, j);
    } else if (is(c, j, '[') && (is(c, j + 1, ':') || is(c, j + 1, '.') || is(c, j + 1, '='))) {
      size_t end = posixClassEnd(c, j + 1);
      j = end == npos ? j + 1 : end;
    } else if (is(c, j, ']')) {
      return j + 1;
    } else {
      ++j;
    }
  }
  return npos;
}

bool isCommentStart(Characters c, size_t i) {
  return is(c, i, '(') && is(c, i + 1, '?') && is(c, i + 2, '#');
}

// A group starting with "(" at `i`: the index past its matching ")", or npos. Nested groups,
// classes, escapes, quoted text and comments (which end at their first ")") are stepped over.
size_t skipGroup(Characters c, size_t i) {
  if (isCommentStart(c, i)) return skipTo(c, i + 3, ')');
  size_t depth = 1;
  size_t j = i + 1;
  while (j < c.size()) {
    if (is(c, j, '\\')) {
      j = escapeEnd(c, j);
    } else if (is(c, j, '[')) {
      j = skipClass(c, j);
      if (j == npos) return npos;
    } else if (isCommentStart(c, j)) {
      j = skipTo(c, j + 3, ')');
      if (j == npos) return npos;
    } else if (is(c, j, '(')) {
      ++depth;
      ++j;
    } else if (is(c, j, ')')) {
      ++j;
      if (--depth == 0) return j;
    } else {
      ++j;
    }
  }
  return npos;
}

// Braces at `i` that hold a repetition count or an escape's argument ("{2,5}", "{41}", "{L}"):
// the index past the "}". A "{" with no "}" before the next delimiter is a literal brace and is
// only stepped over (which keeps the pass linear on runs of "{").
size_t skipBraces(Characters c, size_t i) {
  for (size_t j = i + 1; j < c.size(); ++j) {
    if (is(c, j, '}')) return j + 1;
    if (c[j].size() == 1 && std::string_view("{()[]\\|").find(c[j][0]) != std::string_view::npos) {
      break;
    }
  }
  return i + 1;
}

// Steps over the argument of the escape "\<letter>" whose argument would start at `j`. Braced
// arguments are left to skipBraces.
size_t skipEscapeArgument(Characters c, char letter, size_t j) {
  switch (letter) {
    case 'x':
      for (int k = 0; k < 2 && isHexDigit(c, j); ++k) ++j;
      return j;
    case 'c':
      return j < c.size() ? j + 1 : j;
    case 'p':
    case 'P':
      return j < c.size() && !is(c, j, '{') ? j + 1 : j;
    case 'g':
    case 'k':
      if (is(c, j, '<')) return skipTo(c, j + 1, '>');
      if (is(c, j, '\'')) return skipTo(c, j + 1, '\'');
      if (letter == 'g') {
        if (is(c, j, '+') || is(c, j, '-')) ++j;
        while (isDigitInRange(c, j, '9')) ++j;
      }
      return j;
    case '0':
      for (int k = 0; k < 2 && isDigitInRange(c, j, '7'); ++k) ++j;
      return j;
    default:
      if (letter >= '1' && letter <= '9') {
        while (isDigitInRange(c, j, '9')) ++j;
      }
      return j;
  }
}

// Whether the atom whose next character is at `k` is made optional. Looks past what the engine
// ignores between an atom and its quantifier: "\E", an empty "\Q\E" and "(?#comments)". Inside
// quoted text only the closing "\E" can lead to a quantifier.
bool quantifierFollows(Characters c, size_t k, bool inQuote) {
  if (inQuote) {
    if (!(is(c, k, '\\') && is(c, k + 1, 'E'))) return false;
    k += 2;
  }
  for (;;) {
    if (is(c, k, '\\') && is(c, k + 1, 'E')) {
      k += 2;
    } else if (is(c, k, '\\') && is(c, k + 1, 'Q') && is(c, k + 2, '\\') && is(c, k + 3, 'E')) {
      k += 4;
    } else if (isCommentStart(c, k)) {
      k = skipTo(c, k + 3, ')');
      if (k == npos) return false;
    } else {
      break;
    }
  }
  return isQuantified(c, k);
}

// "(?x)", "(?ix:", "(?^x)": extended mode makes blanks and "#..." ignorable, which this pass
// does not model.
bool setsExtendedMode(Characters c) {
  for (size_t i = 0; i + 1 < c.size(); ++i) {
    if (!is(c, i, '(') || !is(c, i + 1, '?')) continue;
    size_t j = i + 2;
    if (is(c, j, '^')) ++j;
    bool extended = false;
    bool turningOff = false;
    for (; j < c.size() && c[j].size() == 1; ++j) {
      char f = c[j][0];
      if (f == '-') {
        turningOff = true;
      } else if (f >= 'a' && f <= 'z') {
        extended = extended || (f == 'x' && !turningOff);
      } else if (!(f >= 'A' && f <= 'Z')) {
        break;
      }
    }
    if (extended && (is(c, j, ')') || is(c, j, ':'))) return true;
  }
  return false;
}

// A character of several code points that holds an ASCII metacharacter (a bracket followed by
// a combining accent, say): the engine sees the metacharacter, this pass would not.
bool hasHiddenMetacharacter(Characters c) {
  constexpr std::string_view metacharacters = "\\^$.|?*+()[]{}";
  for (std::string_view character : c) {
    if (character.size() < 2 || character == "\r\n") continue;
    for (char byte : character) {
      if (metacharacters.find(byte) != std::string_view::npos) return true;
    }
  }
  return false;
}

bool containsAlternation(Characters c) {
  size_t i = 0;
  while (i < c.size()) {
    if (is(c, i, '\\')) {
      i = escapeEnd(c, i);
    } else if (is(c, i, '[')) {
      i = skipClass(c, i);
      // An unclosed class does not compile: no alternation to worry about.
      if (i == npos) return false;
    } else if (isCommentStart(c, i)) {
      i = skipTo(c, i + 3, ')');
      if (i == npos) return false;
    } else if (is(c, i, '|')) {
      return true;
    } else {
      ++i;
    }
  }
  return false;
}

// The current and best runs of the pass.
class Runs {
 public:
  /// Appends `bytes` lower-cased.
  void append(std::string_view bytes) {
    for (char byte : bytes) current_.push_back(static_cast<char>(foldAscii(byte)));
  }
  /// The current run becomes the best if strictly longer; then it restarts empty.
  void flush() {
    if (current_.size() > best_.size()) best_ = current_;
    current_.clear();
  }
  std::optional<std::string> result() {
    flush();
    if (best_.size() < 2) return std::nullopt;
    return std::move(best_);
  }

 private:
  static char foldAscii(char byte) {
    return static_cast<char>(detail::foldAscii(static_cast<uint8_t>(byte)));
  }

  std::string current_;
  std::string best_;
};

// What caseless matching makes of ASCII beyond ASCII: for each byte, the characters past U+007F
// it matches, spelled in UTF-8, in code point order.
struct CaselessPartners {
  bool known = false;  // false: the engine could not be asked, so no run can be vouched for
  std::bitset<128> beyond;
  std::array<std::vector<std::string>, 128> spellings;
};

const CaselessPartners& caselessPartners() {
  static const CaselessPartners table = [] {
    CaselessPartners found;
    // Compiled caselessly, a class takes in the other cases of its members, so this class of all
    // of ASCII picks out, from a text of every code point from U+0080 to U+FFFF, exactly those
    // that share a case class with an ASCII byte; each one found is then asked which bytes it
    // matches. Code points past U+FFFF are left out: none folds onto ASCII (the tests hold the
    // table to the engine across all of Unicode), and the text of them all would be over 20
    // times longer.
    std::optional<platform::Regex> ascii = platform::Regex::compile("[\\x00-\\x7f]");
    if (!ascii) return found;
    std::string text;
    text.reserve(3 * 0x10000);
    for (char32_t code = 0x80; code <= 0xFFFF; ++code) {
      if (code < 0xD800 || code > 0xDFFF) platform::appendCodePoint(text, code);
    }
    size_t from = 0;
    while (std::optional<std::pair<size_t, size_t>> hit = ascii->find(text, from)) {
      if (hit->second <= hit->first) return found;  // an empty match: the engine is not asked
      from = hit->second;
      std::string spelling = text.substr(hit->first, hit->second - hit->first);
      size_t index = 0;
      char32_t code = platform::decodeCodePoint(spelling, index);
      char pattern[16];
      std::snprintf(pattern, sizeof pattern, "\\x{%x}", static_cast<unsigned>(code));
      std::optional<platform::Regex> one = platform::Regex::compile(pattern);
      if (!one) return found;
      for (unsigned byte = 0; byte < 128; ++byte) {
        char b = static_cast<char>(byte);
        if (!one->search(std::string_view(&b, 1))) continue;
        found.beyond.set(byte);
        found.spellings[byte].push_back(spelling);
      }
    }
    found.known = true;
    return found;
  }();
  return table;
}

// The bytes a single literal character contributes: itself when ASCII, both bytes of CR LF,
// nothing (empty) for anything else.
std::string_view literalBytes(std::string_view character) {
  if (character == "\r\n") return character;
  if (character.size() == 1 && static_cast<unsigned char>(character[0]) < 0x80) return character;
  return {};
}

// Adds the bytes of a literal character unless a quantifier makes it optional; returns `next`,
// the index of the character after it.
size_t addLiteral(Characters c, std::string_view bytes, size_t next, bool inQuote, Runs& runs) {
  if (bytes.empty() || quantifierFollows(c, next, inQuote)) {
    runs.flush();
  } else {
    runs.append(bytes);
  }
  return next;
}

// Quoted text after "\Q" starting at `i`: every character is literal up to "\E". Returns the
// index past the "\E" (or the end).
size_t addQuoted(Characters c, size_t i, Runs& runs) {
  while (i < c.size()) {
    if (is(c, i, '\\') && is(c, i + 1, 'E')) {
      runs.flush();
      return i + 2;
    }
    i = addLiteral(c, literalBytes(c[i]), i + 1, true, runs);
  }
  return i;
}

}  // namespace

const std::bitset<128>& caselessBeyondAscii() {
  static const std::bitset<128> unknown = std::bitset<128>().set();
  const CaselessPartners& table = caselessPartners();
  return table.known ? table.beyond : unknown;
}

std::vector<std::string> partners(std::string_view run) {
  const CaselessPartners& table = caselessPartners();
  std::vector<std::string> found;
  for (char byte : run) {
    auto code = static_cast<unsigned char>(byte);
    if (code >= 128) continue;
    for (const std::string& spelling : table.spellings[code]) {
      if (std::find(found.begin(), found.end(), spelling) == found.end()) {
        found.push_back(spelling);
      }
    }
  }
  return found;
}

bool isQuantified(std::span<const std::string_view> characters, size_t index) {
  if (index >= characters.size()) return false;
  if (is(characters, index, '?') || is(characters, index, '*')) return true;
  if (!is(characters, index, '{')) return false;
  // "{0}", "{00,4}" and "{,2}" allow zero copies; "{2}" and "{1,}" require one.
  bool anyDigit = false;
  bool allZero = true;
  for (size_t j = index + 1; isDigitInRange(characters, j, '9'); ++j) {
    anyDigit = true;
    allZero = allZero && characters[j][0] == '0';
  }
  return !anyDigit || allZero;
}

bool containsAlternation(std::string_view pattern) {
  std::vector<std::string_view> characters = tarvolin::detail::characterViews(pattern);
  for (std::string_view character : characters) {
    // A "|" glued to a combining mark is still an alternation to the engine.
    if (character.size() > 1 && character.find('|') != std::string_view::npos) return true;
  }
  return containsAlternation(Characters(characters));
}

std::optional<std::string> required(std::string_view pattern) {
  std::vector<std::string_view> characters = tarvolin::detail::characterViews(pattern);
  Characters c(characters);
  if (containsAlternation(c) || setsExtendedMode(c) || hasHiddenMetacharacter(c) ||
      !caselessPartners().known) {
    return std::nullopt;
  }

  Runs runs;
  size_t i = 0;
  while (i < c.size()) {
    std::string_view character = c[i];
    if (isCharacter(character, '\\')) {
      if (i + 1 >= c.size()) break;
      std::string_view escaped = c[i + 1];
      if (escaped.size() == 1 && isAsciiAlphanumeric(escaped[0])) {
        runs.flush();
        i = escaped[0] == 'Q' ? addQuoted(c, i + 2, runs)
                              : skipEscapeArgument(c, escaped[0], i + 2);
        if (i == npos) break;
        continue;
      }
      // An escaped ASCII punctuation character is itself; other escaped characters (non-ASCII,
      // including letters of other scripts) end the run.
      i = addLiteral(c, literalBytes(escaped), i + 2, false, runs);
      continue;
    }
    if (character.size() == 1) {
      switch (character[0]) {
        case '[':
        case '(':
          runs.flush();
          i = character[0] == '[' ? skipClass(c, i) : skipGroup(c, i);
          if (i == npos) return runs.result();
          continue;
        case '{':
          runs.flush();
          i = skipBraces(c, i);
          continue;
        case ')':
        case ']':
        case '.':
        case '^':
        case '$':
        case '*':
        case '+':
        case '?':
        case '|':
          runs.flush();
          ++i;
          continue;
        default:
          break;
      }
    }
    i = addLiteral(c, literalBytes(character), i + 1, false, runs);
  }
  return runs.result();
}

}  // namespace tarvolin::RegexLiteral
