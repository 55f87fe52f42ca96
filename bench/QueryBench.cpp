// Query benchmarks: parsing one typed query (once per keystroke) and fuzzy-matching one name
// (once per record of the index in a fuzzy scan). Results are checked before timing.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "tarvolin/query/FuzzyMatcher.h"
#include "tarvolin/query/QueryParser.h"
#include "tarvolin/query/RegexLiteral.h"

namespace {

using namespace tarvolin;

void require(bool condition, const char* what) {
  if (!condition) {
    std::fprintf(stderr, "benchmark precondition failed: %s\n", what);
    std::abort();
  }
}

// 40 characters, five operators.
constexpr std::string_view fiveOperatorQuery = "ext:md size:>1mb dm:<7d path:docs file:x";
static_assert(fiveOperatorQuery.size() == 40);

void BM_QueryParser_Parse(benchmark::State& state) {
  Query parsed = QueryParser::parse(fiveOperatorQuery);
  require(parsed.andTerms.size() == 6 && parsed.requiresAttributes(), "query parses to 6 terms");
  for (auto _ : state) {
    Query query = QueryParser::parse(fiveOperatorQuery);
    benchmark::DoNotOptimize(query);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_QueryParser_Parse);

// A 30-byte name, and a needle that matches it as a scattered subsequence (word starts, a camel
// hump and gaps) or not at all.
constexpr std::string_view thirtyByteName = "Quarterly_ReportDraft-final.md";
static_assert(thirtyByteName.size() == 30);

void BM_FuzzyMatcher_Match(benchmark::State& state) {
  const std::string_view needle = state.range(0) ? "qrtdrfin" : "qrtdrfinx";
  auto expected = FuzzyMatcher::match(needle, thirtyByteName);
  require(expected.has_value() == (state.range(0) == 1), "hit and miss as intended");
  for (auto _ : state) {
    benchmark::DoNotOptimize(needle);
    auto result = FuzzyMatcher::match(needle, thirtyByteName);
    benchmark::DoNotOptimize(result);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
  state.SetLabel(state.range(0) ? "hit" : "miss");
}
BENCHMARK(BM_FuzzyMatcher_Match)->Arg(1)->Arg(0);

void BM_RegexLiteral_Required(benchmark::State& state) {
  constexpr std::string_view pattern = "^IMG_\\d{4}-(?:[a-z]+_)?Final\\.jpe?g$";
  require(RegexLiteral::required(pattern) == "final.jp", "pattern yields final.jp");
  for (auto _ : state) {
    auto run = RegexLiteral::required(pattern);
    benchmark::DoNotOptimize(run);
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_RegexLiteral_Required);

}  // namespace
