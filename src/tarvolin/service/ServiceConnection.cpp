#include "tarvolin/service/ServiceConnection.h"

#include <stdexcept>

#include "tarvolin/platform/Clock.h"
#include "tarvolin/query/QueryParser.h"

namespace tarvolin {

using namespace ServiceProtocol;

ServiceConnection::ServiceConnection(const LiveIndex& index,
                                     std::function<int64_t()> connectionCount)
    : index_(index), connectionCount_(std::move(connectionCount)) {}

Answer ServiceConnection::answer(const Request& request) {
  if (const auto* search = std::get_if<SearchRequest>(&request)) return this->search(*search);
  StatusAnswer status = index_.status();
  if (connectionCount_) status.connections = connectionCount_();
  return status;
}

void ServiceConnection::refresh() {
  LiveIndex::Snapshot current = index_.snapshot();
  if (current.store != store_) {
    store_ = current.store;
    matcher_ = std::make_unique<Matcher>(store_);
    ranker_ = std::make_unique<Ranker>(store_);
    resolver_ = std::make_unique<PathResolver>(store_);
    if (session_) {
      session_->updateStore(store_);
    } else {
      session_ = std::make_unique<SearchSession>(store_);
    }
  }
  // The store's tables may come after the store itself (they are built once it stays current).
  if (current.trigrams != session_->trigrams()) {
    matcher_->setTrigrams(current.trigrams);
    session_->setTrigrams(std::move(current.trigrams));
  }
  if (current.extensions != session_->extensions()) {
    matcher_->setExtensions(current.extensions);
    session_->setExtensions(std::move(current.extensions));
  }
  if (current.scores && !ranker_->hasScores()) ranker_->useScores(std::move(current.scores));
}

Answer ServiceConnection::search(const SearchRequest& request) {
  refresh();
  Query query = QueryParser::parse(request.text);
  uint64_t start = platform::monotonicNanoseconds();
  if (!query.splittingContentTerms().contentNeedles.empty()) {
    // Reading file contents belongs to the client: it runs as the user, in the user's folder.
    return ErrorAnswer{"content search is done by the client", true};
  }

  std::vector<Match> fresh;
  const std::vector<Match>* matches = &fresh;
  try {
    if (request.keystroke) {
      matches = &session_->search(request.text);
    } else {
      // Like a search of its own, the answer does not depend on earlier requests.
      fresh = matcher_->matchWithFuzzyFallback(query);
    }
  } catch (const std::length_error& error) {
    // More different terms than the matcher takes: the query fails here as it would in the
    // client, which reports the message. The typing run starts over from the next keystroke.
    session_->reset();
    return ErrorAnswer{error.what(), false, true};
  }
  std::vector<RankedResult> ranked = ranker_->rank(*matches, request.limit);
  SearchAnswer answer;
  answer.total = static_cast<int64_t>(matches->size());
  answer.elapsedMs = static_cast<double>(platform::monotonicNanoseconds() - start) / 1e6;
  answer.paths.reserve(ranked.size());
  for (const RankedResult& result : ranked) {
    answer.paths.push_back(resolver_->absolutePath(result.match.id));
  }
  if (query.requiresAttributes()) {
    switch (store_->header().attrsCompleteness) {
      case AttrsCompleteness::complete:
        break;
      case AttrsCompleteness::none:
        answer.warning = AttributeWarning::noAttributes;
        break;
      case AttrsCompleteness::partial:
        answer.warning = AttributeWarning::partialAttributes;
        break;
    }
  }
  answer.indexPath = index_.indexPath().string();
  return answer;
}

}  // namespace tarvolin
