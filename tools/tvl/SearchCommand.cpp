// tvl search <query>: the best 20 paths for a query, the attribute warning when the query needs
// sizes or dates the index lacks, and a summary line with the count and the time taken.

#include <cinttypes>

#include "Commands.h"
#include "Output.h"
#include "tarvolin/index/PathResolver.h"
#include "tarvolin/platform/Clock.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/QueryParser.h"
#include "tarvolin/query/Ranker.h"

namespace tvl {

namespace {

constexpr int64_t kShownResults = 20;

void printAttributeWarning(const tarvolin::Query& query, const tarvolin::IndexStore& store) {
  if (!query.requiresAttributes()) return;
  switch (store.header().attrsCompleteness) {
    case tarvolin::AttrsCompleteness::complete:
      return;
    case tarvolin::AttrsCompleteness::none:
      output::line("");
      output::line("  size: and dm: filters need file attributes, which this index does not have yet.");
      output::line("  (Attributes are filled by the first scan and by \"Refresh\" -- not by");
      output::line("  automatic background rescans -- so results below may be incomplete.)");
      return;
    case tarvolin::AttrsCompleteness::partial:
      output::line("");
      output::line("  size: and dm: filters are matched against a PARTIALLY attribute-filled index --");
      output::line("  results below are real but may be missing some matches.");
      return;
  }
}

}  // namespace

int runSearch(const Context& context) {
  std::string text = context.text();
  std::shared_ptr<const tarvolin::IndexStore> store = openIndexOrExit(context);
  tarvolin::Query query = tarvolin::QueryParser::parse(text);
  uint64_t start = tarvolin::platform::monotonicNanoseconds();

  tarvolin::Query::ContentSplit split = query.splittingContentTerms();
  if (!split.contentNeedles.empty()) {
    if (split.name.isEmpty()) {
      output::errorLine("contains: needs something to narrow by, e.g. `.swift contains:foo`");
      throw ExitRequest{2};
    }
    output::errorLine("tvl: contains: searches are not available in this build yet");
    throw ExitRequest{1};
  }

  tarvolin::Matcher matcher(store);
  // An empty result is final: a fresh search session would parse the same text and run this
  // same fallback over the same store.
  std::vector<tarvolin::Match> matches = matcher.matchWithFuzzyFallback(query);
  tarvolin::Ranker ranker(store);
  std::vector<tarvolin::RankedResult> ranked = ranker.rank(matches, kShownResults);
  auto total = static_cast<int64_t>(matches.size());
  double elapsedMs = static_cast<double>(tarvolin::platform::monotonicNanoseconds() - start) / 1e6;

  tarvolin::PathResolver resolver(store);
  for (const tarvolin::RankedResult& result : ranked) {
    output::line("  " + resolver.absolutePath(result.match.id));
  }
  printAttributeWarning(query, *store);
  output::format("\n%" PRId64 " matches in %.2fms (showing %" PRId64 ")\n", total, elapsedMs,
                 static_cast<int64_t>(ranked.size()));
  return 0;
}

}  // namespace tvl
