// tvl search <query>: the best 20 paths for a query, the attribute warning when the query needs
// sizes or dates the index lacks, and a summary line with the count and the time taken. A running
// service for the same index answers when there is one; the output is the same either way.

#include <cinttypes>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <variant>

#include "Commands.h"
#include "Output.h"
#include "tarvolin/content/ContentSearcher.h"
#include "tarvolin/index/PathResolver.h"
#include "tarvolin/platform/Clock.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/QueryParser.h"
#include "tarvolin/query/Ranker.h"
#include "tarvolin/service/ServiceClient.h"

namespace tvl {

namespace {

constexpr int64_t kShownResults = 20;
// A contains: search reads the files of the best this many name matches.
constexpr int64_t kContentCandidates = 5000;

void printCompletenessWarning(tarvolin::AttrsCompleteness completeness) {
  switch (completeness) {
    case tarvolin::AttrsCompleteness::complete:
      return;
    case tarvolin::AttrsCompleteness::none:
      output::line("");
      output::line(
          "  size: and dm: filters need file attributes, which this index does not have yet.");
      output::line("  (Attributes are filled by the first scan and by \"Refresh\" -- not by");
      output::line("  automatic background rescans -- so results below may be incomplete.)");
      return;
    case tarvolin::AttrsCompleteness::partial:
      output::line("");
      output::line(
          "  size: and dm: filters are matched against a PARTIALLY attribute-filled index --");
      output::line("  results below are real but may be missing some matches.");
      return;
  }
}

void printAttributeWarning(const tarvolin::Query& query, const tarvolin::IndexStore& store) {
  if (query.requiresAttributes()) printCompletenessWarning(store.header().attrsCompleteness);
}

// A running service for this index answers from memory, without loading and verifying the file.
// Nothing when no service runs, it refuses (a contains: search reads files here) or fails: the
// caller then searches the index itself.
std::optional<int> searchThroughService(const Context& context, const std::string& text) {
  namespace protocol = tarvolin::ServiceProtocol;
  auto client = tarvolin::ServiceClient::connect(protocol::socketPathFor(context.indexPath));
  if (!client) return std::nullopt;
  auto answer = client->ask(protocol::SearchRequest{text, false, kShownResults});
  const auto* failed = answer ? std::get_if<protocol::ErrorAnswer>(&*answer) : nullptr;
  if (failed != nullptr && failed->searchFailed) {
    // The search failed in the service as it would here: the same message, the same status.
    output::errorLine("tvl: " + failed->error);
    return 1;
  }
  const auto* found = answer ? std::get_if<protocol::SearchAnswer>(&*answer) : nullptr;
  if (found == nullptr || found->indexPath != context.indexPath.string()) return std::nullopt;
  for (const std::string& path : found->paths) output::line("  " + path);
  switch (found->warning) {
    case protocol::AttributeWarning::none:
      break;
    case protocol::AttributeWarning::noAttributes:
      printCompletenessWarning(tarvolin::AttrsCompleteness::none);
      break;
    case protocol::AttributeWarning::partialAttributes:
      printCompletenessWarning(tarvolin::AttrsCompleteness::partial);
      break;
  }
  output::format("\n%" PRId64 " matches in %.2fms (showing %" PRId64 ")\n", found->total,
                 found->elapsedMs, static_cast<int64_t>(found->paths.size()));
  return 0;
}

struct ContentResults {
  std::vector<tarvolin::RankedResult> shown;
  std::vector<std::string> shownPaths;
  int64_t total = 0;
  std::string suffix;
  std::unordered_map<std::string, tarvolin::ContentSearcher::Hit> hits;  // first hit per path
};

// The name query narrows to the best candidates; each needle's hits among their files are
// intersected; the survivors keep their name rank.
ContentResults searchContents(const tarvolin::Query::ContentSplit& split,
                              const std::shared_ptr<const tarvolin::IndexStore>& store) {
  tarvolin::Matcher matcher(store);
  tarvolin::Ranker ranker(store);
  std::vector<tarvolin::RankedResult> ranked =
      ranker.rank(matcher.match(split.name), kContentCandidates);
  tarvolin::PathResolver resolver(store);
  std::vector<std::string> candidates;
  candidates.reserve(ranked.size());
  for (const tarvolin::RankedResult& result : ranked) {
    candidates.push_back(resolver.absolutePath(result.match.id));
  }

  ContentResults results;
  std::optional<std::unordered_set<std::string>> surviving;
  for (const std::string& needle : split.contentNeedles) {
    tarvolin::ContentSearcher::Outcome outcome = tarvolin::ContentSearcher::search(
        needle, candidates, /*caseSensitive=*/false, kContentCandidates);
    if (const auto* refused = std::get_if<tarvolin::ContentSearcher::TooManyCandidates>(&outcome)) {
      output::errorLine(std::to_string(refused->count) +
                        " candidates is too many to read; narrow the name query first");
      throw ExitRequest{2};
    }
    std::unordered_set<std::string> found;
    for (const tarvolin::ContentSearcher::Hit& hit :
         std::get<std::vector<tarvolin::ContentSearcher::Hit>>(outcome)) {
      found.insert(hit.path);
      results.hits.try_emplace(hit.path, hit);
    }
    if (!surviving) {
      surviving = std::move(found);
    } else {
      std::erase_if(*surviving, [&](const std::string& path) { return !found.contains(path); });
    }
  }

  for (size_t i = 0; i < ranked.size(); ++i) {
    if (!surviving || !surviving->contains(candidates[i])) continue;
    ++results.total;
    if (static_cast<int64_t>(results.shown.size()) < kShownResults) {
      results.shown.push_back(ranked[i]);
      results.shownPaths.push_back(candidates[i]);
    }
  }
  results.suffix = "  (read " + std::to_string(candidates.size()) + " candidates)";
  return results;
}

}  // namespace

int runSearch(const Context& context) {
  std::string text = context.text();
  if (std::optional<int> status = searchThroughService(context, text)) return *status;
  std::shared_ptr<const tarvolin::IndexStore> store = openIndexOrExit(context);
  tarvolin::Query query = tarvolin::QueryParser::parse(text);
  uint64_t start = tarvolin::platform::monotonicNanoseconds();

  tarvolin::Query::ContentSplit split = query.splittingContentTerms();
  if (!split.contentNeedles.empty()) {
    if (split.name.isEmpty()) {
      output::errorLine("contains: needs something to narrow by, e.g. `.swift contains:foo`");
      throw ExitRequest{2};
    }
    ContentResults results = searchContents(split, store);
    for (size_t i = 0; i < results.shownPaths.size(); ++i) {
      const std::string& path = results.shownPaths[i];
      output::line("  " + path);
      if (auto hit = results.hits.find(path); hit != results.hits.end()) {
        output::line("      " + std::to_string(hit->second.line) + ": " + hit->second.preview);
      }
    }
    double elapsedMs =
        static_cast<double>(tarvolin::platform::monotonicNanoseconds() - start) / 1e6;
    printAttributeWarning(query, *store);
    output::format("\n%" PRId64 " matches in %.2fms (showing %" PRId64 ")%s\n", results.total,
                   elapsedMs, static_cast<int64_t>(results.shown.size()), results.suffix.c_str());
    return 0;
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
