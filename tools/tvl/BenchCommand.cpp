// tvl bench and tvl measure: timings of the search engine against the current index.

#include <cinttypes>
#include <functional>

#include "Commands.h"
#include "Output.h"
#include "tarvolin/platform/Clock.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/QueryParser.h"
#include "tarvolin/query/Ranker.h"
#include "tarvolin/query/SearchSession.h"

namespace tvl {

namespace {

const char* const kBenchQueries[] = {
    "a",
    "report",
    "playground",
    "ext:swift",
    "size:>10mb",
    "ext:swift size:>10mb",
    "ext:txt | ext:bin",
    "ext:txt,bin",
    "!ext:swift",
    "/^IMG_\\d+/",
};

double millisecondsSince(uint64_t start) {
  return static_cast<double>(tarvolin::platform::monotonicNanoseconds() - start) / 1e6;
}

// Runs `body` once between two clock readings and prints the label and the time.
void timeit(const std::string& label, const std::function<void()>& body) {
  uint64_t start = tarvolin::platform::monotonicNanoseconds();
  body();
  double elapsed = millisecondsSince(start);
  output::format("  %-28.28s%.2fms\n", label.c_str(), elapsed);  // labels are ASCII
}

}  // namespace

int runBench(const Context& context) {
  std::shared_ptr<const tarvolin::IndexStore> store = openIndexOrExit(context);
  output::format("Records: %" PRIu32 ", name blob: %" PRIu32 "MB\n", store->count(),
                 store->header().nameBlobLength / 1'000'000);
  for (const char* query : kBenchQueries) {
    tarvolin::SearchSession session(store);
    uint64_t start = tarvolin::platform::monotonicNanoseconds();
    const std::vector<tarvolin::Match>& matches = session.search(query);
    double elapsed = millisecondsSince(start);
    output::format("  %-14.14s%6" PRId64 " matches  %.2fms\n", query,  // ASCII queries
                   static_cast<int64_t>(matches.size()), elapsed);
  }
  return 0;
}

int runMeasure(const Context& context) {
  std::shared_ptr<const tarvolin::IndexStore> store = openIndexOrExit(context);
  output::format("Records: %" PRIu32 "\n", store->count());

  tarvolin::Query pathQuery = tarvolin::QueryParser::parse("path:playground");
  tarvolin::Matcher pathMatcher(store);
  std::vector<tarvolin::Match> pathMatches;
  timeit("path:playground matching", [&] { pathMatches = pathMatcher.match(pathQuery); });
  output::format("    %zu matches\n", pathMatches.size());

  tarvolin::Query wordQuery = tarvolin::QueryParser::parse("a");
  tarvolin::Matcher wordMatcher(store);
  std::vector<tarvolin::Match> wordMatches;
  timeit("'a' matching", [&] { wordMatches = wordMatcher.match(wordQuery); });
  output::format("    %zu matches\n", wordMatches.size());

  tarvolin::Ranker ranker(store);
  timeit("'a' ranking (limit 20)", [&] { ranker.rank(wordMatches, 20); });
  return 0;
}

}  // namespace tvl
