#include "tarvolin/query/FuzzyMatcher.h"

#include <algorithm>

#include "tarvolin/query/detail/AsciiFold.h"

namespace tarvolin::FuzzyMatcher {

namespace {

using detail::foldAscii;
using detail::isWordBoundaryByte;

constexpr bool isUpper(unsigned char c) { return c >= 'A' && c <= 'Z'; }
constexpr bool isLower(unsigned char c) { return c >= 'a' && c <= 'z'; }

}  // namespace

std::optional<Result> match(std::string_view needle, std::string_view haystack) {
  if (needle.empty() || needle.size() > haystack.size()) return std::nullopt;
  const auto* n = reinterpret_cast<const unsigned char*>(needle.data());
  const auto* h = reinterpret_cast<const unsigned char*>(haystack.data());
  const size_t needleLength = needle.size();
  const size_t haystackLength = haystack.size();

  size_t k = 0;
  int64_t score = 0;
  int64_t penalty = 0;
  int64_t first = -1;
  int64_t last = -1;
  if (foldAscii(h[0]) == n[0]) {
    k = 1;
    score = 10;
    first = 0;
    last = 0;
  }
  for (size_t i = 1; i < haystackLength && k < needleLength; ++i) {
    if (foldAscii(h[i]) != n[k]) continue;
    const auto at = static_cast<int64_t>(i);
    if (first < 0) first = at;
    const int64_t gap = at - 1 - last;
    const bool startsWord = isWordBoundaryByte(h[i - 1]) || (isUpper(h[i]) && isLower(h[i - 1]));
    if (gap == 0) {
      score += 8;
    } else if (startsWord) {
      score += 6;
    }
    if (last >= 0 && !startsWord) penalty += gap;
    ++k;
    last = at;
  }
  if (k < needleLength) return std::nullopt;
  return Result{score - std::min<int64_t>(penalty, 20), first < 0 ? 0 : first};
}

}  // namespace tarvolin::FuzzyMatcher
