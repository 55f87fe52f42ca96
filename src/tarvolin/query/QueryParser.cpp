#include "tarvolin/query/QueryParser.h"

#include <algorithm>
#include <array>
#include <limits>

#include "tarvolin/platform/Unicode.h"
#include "tarvolin/query/detail/Characters.h"
#include "tarvolin/query/detail/QueryParserSteps.h"

namespace tarvolin::QueryParser {

using tarvolin::detail::characterViews;
using tarvolin::detail::endsWithCharacter;
using tarvolin::detail::endsWithCharacters;
using tarvolin::detail::findCharacter;
using tarvolin::detail::isCharacter;
using tarvolin::detail::startsWithCharacter;
using tarvolin::platform::graphemeCount;

namespace {

// Operators whose value may follow as the next token ("ext: md").
const std::set<std::string, std::less<>>& valueOperators() {
  static const std::set<std::string, std::less<>> keys = {"contains", "in",   "ext",
                                                          "path",     "size", "dm"};
  return keys;
}

bool isRegexMetacharacter(std::string_view character) {
  constexpr std::string_view metacharacters = "^$*+?[](|\\{}";
  return character.size() == 1 && metacharacters.find(character[0]) != std::string_view::npos;
}

struct SizeUnit {
  std::string_view suffix;
  uint64_t multiplier;
};
constexpr std::array<SizeUnit, 4> sizeUnits = {{
    {"gb", 1024ull * 1024 * 1024},
    {"mb", 1024ull * 1024},
    {"kb", 1024},
    {"b", 1},
}};

std::optional<TypeConstraint> typeForKey(std::string_view key) {
  if (key == "folder") return TypeConstraint::folder;
  if (key == "app") return TypeConstraint::app;
  if (key == "file") return TypeConstraint::file;
  return std::nullopt;
}

// The pieces of `text` between characters equal to `separator`, empty pieces dropped.
std::vector<std::string_view> splitDroppingEmpty(std::string_view text, char separator) {
  std::vector<std::string_view> pieces;
  size_t pieceStart = 0;
  size_t at = 0;
  while (at < text.size()) {
    size_t end = platform::graphemeClusterEnd(text, at);
    if (end - at == 1 && text[at] == separator) {
      if (at > pieceStart) pieces.push_back(text.substr(pieceStart, at - pieceStart));
      pieceStart = end;
    }
    at = end;
  }
  if (text.size() > pieceStart) pieces.push_back(text.substr(pieceStart));
  return pieces;
}

// Token text with every double-quote character removed.
std::string removingQuotes(std::string_view token) {
  std::string out;
  for (std::string_view character : characterViews(token)) {
    if (!isCharacter(character, '"')) out += character;
  }
  return out;
}

std::string_view withoutFirstAndLast(std::string_view text) {
  return text.substr(1, text.size() - 2);
}

// Applies the rules of the operator `key` (lower case, a member of operatorKeys) to `value`.
Term operatorTerm(std::string_view token, std::string_view key, std::string_view value) {
  if (key == "ext") {
    if (auto extensions = detail::parseExtensions(value)) return Term::ext(std::move(*extensions));
  } else if (key == "path") {
    if (!value.empty()) return Term::pathContains(std::string(value));
  } else if (key == "contains" || key == "in") {
    if (graphemeCount(value) >= 2 && startsWithCharacter(value, '"') &&
        endsWithCharacter(value, '"')) {
      value = withoutFirstAndLast(value);
    }
    if (!value.empty()) return Term::contains(std::string(value));
  } else if (auto kind = typeForKey(key)) {
    return Term::type(*kind);
  } else if (key == "size") {
    if (auto comparison = detail::parseSize(value)) return Term::size(*comparison);
  } else if (key == "dm") {
    if (auto constraint = detail::parseDate(value)) return Term::dateModified(*constraint);
  }
  return Term::substring(std::string(token));
}

// The text before the first colon of a token and the text after it, if it has a colon.
std::optional<std::pair<std::string_view, std::string_view>> splitAtColon(std::string_view token) {
  size_t colon = findCharacter(token, ':');
  if (colon == std::string_view::npos) return std::nullopt;
  return std::pair(token.substr(0, colon), token.substr(colon + 1));
}

}  // namespace

namespace detail {

std::string_view trimmingWhitespace(std::string_view text) {
  size_t start = 0;
  while (start < text.size()) {
    size_t next = start;
    if (!platform::isHorizontalWhitespace(platform::decodeCodePoint(text, next))) break;
    start = next;
  }
  size_t end = start;
  for (size_t at = start; at < text.size();) {
    bool blank = platform::isHorizontalWhitespace(platform::decodeCodePoint(text, at));
    if (!blank) end = at;
  }
  return text.substr(start, end - start);
}

std::vector<std::string> tokenize(std::string_view text) {
  std::vector<std::string> tokens;
  // A blank ends at most one token, a pipe at most two (itself and the one before it).
  auto separators = static_cast<size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return c == ' ' || c == '|'; }));
  tokens.reserve(2 * separators + 1);
  std::string current;
  bool inQuote = false;
  bool inRegex = false;
  auto endToken = [&] {
    if (!current.empty()) tokens.push_back(std::move(current));
    current.clear();
    inQuote = false;
    inRegex = false;
  };
  for (size_t at = 0; at < text.size();) {
    size_t end = platform::graphemeClusterEnd(text, at);
    std::string_view character = text.substr(at, end - at);
    at = end;
    bool single = character.size() == 1;
    char c = character[0];
    if (single && c == '"' && !inRegex) {
      inQuote = !inQuote;
    } else if (single && c == '/' && !inQuote && (current.empty() || inRegex)) {
      inRegex = !inRegex;
    } else if (single && c == '|' && !inQuote && !inRegex) {
      endToken();
      tokens.emplace_back("|");
      continue;
    } else if (single && c == ' ' && !inQuote && !inRegex) {
      endToken();
      continue;
    }
    current += character;
  }
  endToken();
  return tokens;
}

std::vector<std::string> joinDanglingOperators(std::vector<std::string> tokens) {
  std::vector<std::string> joined;
  joined.reserve(tokens.size());
  for (size_t i = 0; i < tokens.size(); ++i) {
    const std::string& token = tokens[i];
    if (i + 1 < tokens.size() && tokens[i + 1] != "|" && endsWithCharacter(token, ':')) {
      std::string key = platform::lowercase(std::string_view(token).substr(0, token.size() - 1));
      if (valueOperators().contains(key)) {
        joined.push_back(token + tokens[i + 1]);
        ++i;
        continue;
      }
    }
    joined.push_back(std::move(tokens[i]));
  }
  return joined;
}

std::vector<std::vector<std::string>> splitOnPipes(const std::vector<std::string>& tokens) {
  std::vector<std::vector<std::string>> groups(1);
  for (const std::string& token : tokens) {
    if (token == "|") {
      groups.emplace_back();
    } else {
      groups.back().push_back(token);
    }
  }
  std::erase_if(groups, [](const auto& group) { return group.empty(); });
  return groups;
}

std::pair<size_t, std::string_view> strippingNegations(std::string_view token) {
  size_t count = 0;
  while (startsWithCharacter(token, '!')) {
    token.remove_prefix(1);
    ++count;
  }
  return {count, token};
}

void appendTerms(std::string_view token, std::vector<Term>& terms) {
  if (startsWithCharacter(token, '!')) {
    auto [count, body] = strippingNegations(token);
    if (auto typed = typeOperatorWithValue(body)) {
      if (count % 2 == 0) {
        for (Term& term : *typed) terms.push_back(std::move(term));
      } else if (typed->size() == 1) {
        terms.push_back(Term::not_(std::move(typed->front())));
      } else {
        // "!folder:src" cannot negate both halves sensibly: search the text as typed.
        terms.push_back(Term::substring(std::string(token)));
      }
      return;
    }
  }
  if (auto typed = typeOperatorWithValue(token)) {
    for (Term& term : *typed) terms.push_back(std::move(term));
  } else if (auto term = parseToken(token)) {
    terms.push_back(std::move(*term));
  }
}

std::vector<Term> parseTerms(std::string_view token) {
  std::vector<Term> terms;
  appendTerms(token, terms);
  return terms;
}

std::optional<std::vector<Term>> typeOperatorWithValue(std::string_view token) {
  auto parts = splitAtColon(token);
  if (!parts) return std::nullopt;
  auto kind = typeForKey(platform::lowercase(parts->first));
  if (!kind) return std::nullopt;
  std::string_view value = parts->second;
  std::vector<Term> terms;
  terms.reserve(2);
  terms.push_back(Term::type(*kind));
  if (!value.empty()) {
    std::optional<Term> valueTerm = parseToken(value);
    terms.push_back(valueTerm ? std::move(*valueTerm) : Term::substring(std::string(value)));
  }
  return terms;
}

std::optional<Term> parseToken(std::string_view token) {
  if (token.empty()) return std::nullopt;

  if (startsWithCharacter(token, '!')) {
    auto [count, rest] = strippingNegations(token);
    if (rest.empty()) return Term::substring(std::string(token));
    // `rest` no longer starts with "!", so this recursion is one level deep.
    std::optional<Term> term = parseToken(rest);
    if (!term) return Term::substring(std::string(token));
    if (count % 2 == 0) return term;
    return Term::not_(std::move(*term));
  }

  if (startsWithCharacter(token, '"')) {
    if (graphemeCount(token) >= 2 && endsWithCharacter(token, '"')) {
      std::string_view inner = withoutFirstAndLast(token);
      if (inner.empty()) return std::nullopt;
      return Term::exactPhrase(std::string(inner));
    }
    std::string rest = removingQuotes(token);
    if (rest.empty()) return std::nullopt;
    return Term::substring(std::move(rest));
  }

  if (startsWithCharacter(token, '/')) {
    if (graphemeCount(token) >= 2 && endsWithCharacter(token, '/') && looksLikeRegex(token)) {
      return Term::regex(std::string(withoutFirstAndLast(token)));
    }
    return Term::substring(std::string(token));
  }

  if (startsWithCharacter(token, '.')) {
    std::vector<std::string_view> characters = characterViews(token);
    if (characters.size() >= 2 && characters.size() <= 9) {
      bool allAlphanumeric = true;
      bool anyLetter = false;
      for (size_t i = 1; i < characters.size(); ++i) {
        bool letter = tarvolin::detail::isLetterCharacter(characters[i]);
        anyLetter = anyLetter || letter;
        if (!letter && !tarvolin::detail::isDigitCharacter(characters[i])) {
          allAlphanumeric = false;
          break;
        }
      }
      if (allAlphanumeric && anyLetter) return Term::ext(platform::lowercase(token.substr(1)));
    }
  }

  if (auto parts = splitAtColon(token)) {
    std::string key = platform::lowercase(parts->first);
    if (!operatorKeys().contains(key)) return Term::substring(std::string(token));
    return operatorTerm(token, key, parts->second);
  }

  return Term::substring(std::string(token));
}

bool looksLikeRegex(std::string_view token) {
  std::vector<std::string_view> characters = characterViews(token);
  if (characters.size() < 2) return false;
  bool hasSlash = false;
  for (size_t i = 1; i + 1 < characters.size(); ++i) {
    if (isRegexMetacharacter(characters[i])) return true;
    hasSlash = hasSlash || isCharacter(characters[i], '/');
  }
  return !hasSlash;
}

std::optional<std::string> parseExtensions(std::string_view value) {
  std::string lower = platform::lowercase(value);
  std::string joined;
  for (std::string_view piece : splitDroppingEmpty(lower, ',')) {
    if (startsWithCharacter(piece, '.')) piece.remove_prefix(1);
    if (piece.empty()) continue;
    if (!joined.empty()) joined += ',';
    joined += piece;
  }
  if (joined.empty()) return std::nullopt;
  return joined;
}

std::optional<SizeComparison> parseSize(std::string_view value) {
  SizeComparison::Kind kind = SizeComparison::Kind::equalTo;
  if (startsWithCharacter(value, '>')) {
    kind = SizeComparison::Kind::greaterThan;
    value.remove_prefix(1);
  } else if (startsWithCharacter(value, '<')) {
    kind = SizeComparison::Kind::lessThan;
    value.remove_prefix(1);
  }
  std::string lower = platform::lowercase(value);
  std::string_view number = lower;
  uint64_t multiplier = 1;
  for (const SizeUnit& unit : sizeUnits) {
    if (endsWithCharacters(lower, unit.suffix)) {
      number.remove_suffix(unit.suffix.size());
      multiplier = unit.multiplier;
      break;
    }
  }
  std::optional<uint64_t> count = parseUnsigned(number);
  if (!count) return std::nullopt;
  uint64_t bytes;
  if (__builtin_mul_overflow(*count, multiplier, &bytes)) return std::nullopt;
  return SizeComparison{kind, bytes};
}

std::optional<DateConstraint> parseDate(std::string_view value) {
  std::string lower = platform::lowercase(value);
  if (lower == "today") return DateConstraint::today();
  if (startsWithCharacter(lower, '<') && endsWithCharacter(lower, 'd')) {
    std::optional<int64_t> days = parseSigned(withoutFirstAndLast(lower));
    if (!days) return std::nullopt;
    return DateConstraint::withinDays(*days);
  }
  std::vector<std::string_view> pieces = splitDroppingEmpty(lower, '-');
  if (pieces.size() != 2) return std::nullopt;
  std::optional<int64_t> year = parseSigned(pieces[0]);
  std::optional<int64_t> month = parseSigned(pieces[1]);
  if (!year || !month || *month < 1 || *month > 12) return std::nullopt;
  return DateConstraint::month(*year, *month);
}

namespace {

// The magnitude of a run of ASCII digits; nothing when empty, not all digits, or above `limit`.
std::optional<uint64_t> parseMagnitude(std::string_view digits, uint64_t limit) {
  if (digits.empty()) return std::nullopt;
  uint64_t value = 0;
  for (char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    auto digit = static_cast<uint64_t>(c - '0');
    if (value > (limit - digit) / 10) return std::nullopt;
    value = value * 10 + digit;
  }
  return value;
}

}  // namespace

std::optional<uint64_t> parseUnsigned(std::string_view text) {
  constexpr uint64_t limit = std::numeric_limits<uint64_t>::max();
  if (!text.empty() && text[0] == '-') {
    // Only a negative zero fits an unsigned number.
    std::optional<uint64_t> magnitude = parseMagnitude(text.substr(1), limit);
    if (!magnitude || *magnitude != 0) return std::nullopt;
    return 0;
  }
  if (!text.empty() && text[0] == '+') text.remove_prefix(1);
  return parseMagnitude(text, limit);
}

std::optional<int64_t> parseSigned(std::string_view text) {
  constexpr auto maxValue = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
  bool negative = false;
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  std::optional<uint64_t> magnitude = parseMagnitude(text, negative ? maxValue + 1 : maxValue);
  if (!magnitude) return std::nullopt;
  if (negative) return static_cast<int64_t>(0 - *magnitude);
  return static_cast<int64_t>(*magnitude);
}

}  // namespace detail

Query parse(std::string_view text) {
  Query query;
  query.raw = std::string(text);
  std::string repaired;
  if (!platform::isValidUtf8(text)) {
    repaired = platform::decodeUtf8Lossy(text);
    text = repaired;
  }
  std::string_view trimmed = detail::trimmingWhitespace(text);
  if (trimmed.empty()) return query;

  std::vector<std::string> tokens = detail::joinDanglingOperators(detail::tokenize(trimmed));
  if (std::find(tokens.begin(), tokens.end(), "|") != tokens.end()) {
    std::vector<std::vector<Term>> termGroups;
    for (const auto& group : detail::splitOnPipes(tokens)) {
      std::vector<Term> terms;
      for (const std::string& token : group) detail::appendTerms(token, terms);
      if (!terms.empty()) termGroups.push_back(std::move(terms));
    }
    if (termGroups.size() > 1) {
      query.orGroups = std::move(termGroups);
      return query;
    }
  }
  // One alternative: a stray "|" is searched for as text.
  query.andTerms.reserve(tokens.size());
  for (const std::string& token : tokens) detail::appendTerms(token, query.andTerms);
  return query;
}

std::vector<std::string> splitTopLevelOr(std::string_view text) {
  std::string repaired;
  if (!platform::isValidUtf8(text)) {
    repaired = platform::decodeUtf8Lossy(text);
    text = repaired;
  }
  std::vector<std::string> alternatives;
  for (const auto& group :
       detail::splitOnPipes(detail::tokenize(detail::trimmingWhitespace(text)))) {
    std::string joined;
    for (const std::string& token : group) {
      if (!joined.empty()) joined += ' ';
      joined += token;
    }
    alternatives.push_back(std::move(joined));
  }
  return alternatives;
}

const std::set<std::string, std::less<>>& operatorKeys() {
  static const std::set<std::string, std::less<>> keys = {"ext", "path", "contains", "in", "folder",
                                                          "app", "file", "size",     "dm"};
  return keys;
}

}  // namespace tarvolin::QueryParser
