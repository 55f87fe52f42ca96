#pragma once
// How well a record's name matched a query word. The ranker orders results by it before anything
// else: a smaller raw value is a better match (exact < prefix < wordBoundary < substring <
// fuzzy), and the built-in comparison operators of the enumeration give that order. A plain
// value; any thread.

#include <array>
#include <cstdint>
#include <optional>

namespace tarvolin {

enum class MatchQuality : uint8_t {
  exact = 0,         // the word equals the whole name (ASCII case folded)
  prefix = 1,        // the name starts with the word
  wordBoundary = 2,  // the first occurrence follows a blank, "-", ".", "/" or "_"
  substring = 3,     // any other occurrence; also records matched only by filter or path terms
  fuzzy = 4,         // found only by FuzzyMatcher
};

/// Every case, best first.
inline constexpr std::array<MatchQuality, 5> allMatchQualities = {
    MatchQuality::exact, MatchQuality::prefix, MatchQuality::wordBoundary, MatchQuality::substring,
    MatchQuality::fuzzy};

constexpr uint8_t rawValue(MatchQuality quality) { return static_cast<uint8_t>(quality); }

/// The quality with that raw value; nothing for 5 and above.
constexpr std::optional<MatchQuality> matchQuality(uint8_t rawValue) {
  if (rawValue > static_cast<uint8_t>(MatchQuality::fuzzy)) return std::nullopt;
  return static_cast<MatchQuality>(rawValue);
}

}  // namespace tarvolin
