#pragma once
// Scores a name that contains the letters of a word in order but not as one piece: subsequence
// matching with bonuses for the first byte, consecutive bytes, word starts and camel-case humps,
// and a capped penalty for gaps. The matcher uses it when exact matching finds fewer than five
// results for a single word. Stateless; any thread. match() allocates nothing: it runs once per
// record of the index.
//
// Scale: a word of n bytes matched as one run at the start of a name scores 10 + 8(n - 1); the
// matcher keeps hits that score at least minimumScore(n) = 4n.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace tarvolin::FuzzyMatcher {

inline constexpr size_t minNeedleLength = 3;
inline constexpr size_t maxNeedleLength = 32;

struct Result {
  int64_t score = 0;
  /// Byte offset in the haystack of the first matched needle byte.
  int64_t firstMatch = 0;

  friend bool operator==(const Result&, const Result&) = default;
};

/// Whether a word of these bytes is worth a fuzzy scan: 3 to 32 bytes inclusive.
constexpr bool isEligible(std::string_view needle) {
  return needle.size() >= minNeedleLength && needle.size() <= maxNeedleLength;
}

/// The lowest score the matcher admits for a needle of `needleLength` bytes: 4 per byte.
constexpr int64_t minimumScore(size_t needleLength) {
  return 4 * static_cast<int64_t>(needleLength);
}

/// Greedy subsequence match of `needle` (lower-cased bytes) in `haystack` (raw name bytes,
/// compared with "A"-"Z" folded to "a"-"z"): each needle byte takes its earliest position after
/// the previous one, without backtracking. Scoring, for a needle byte matched at i:
///   +10 when i = 0; +8 when the previous needle byte matched at i - 1; otherwise +6 when the
///   byte before is a boundary (blank, "-", ".", "/", "_") or i starts a camel hump (upper-case
///   after lower-case). A later byte that starts neither a boundary nor a hump adds its gap to a
///   penalty; at most 20 of the penalty is subtracted. Leading skipped bytes cost nothing.
/// Nothing when the needle is empty, longer than the haystack, or not a subsequence of it.
std::optional<Result> match(std::string_view needle, std::string_view haystack);

}  // namespace tarvolin::FuzzyMatcher
