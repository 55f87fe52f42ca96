#include "tarvolin/query/SearchSession.h"

#include "tarvolin/platform/Unicode.h"
#include "tarvolin/query/QueryParser.h"

namespace tarvolin {

SearchSession::SearchSession(std::shared_ptr<const IndexStore> store)
    : matcher_(std::make_unique<Matcher>(std::move(store))) {}

void SearchSession::updateStore(std::shared_ptr<const IndexStore> store) {
  matcher_ = std::make_unique<Matcher>(std::move(store));
  ++generation_;
}

void SearchSession::setTrigrams(std::shared_ptr<const TrigramIndex> trigrams) {
  matcher_->setTrigrams(std::move(trigrams));
}

void SearchSession::setExtensions(std::shared_ptr<const ExtensionIndex> extensions) {
  matcher_->setExtensions(std::move(extensions));
}

std::optional<std::vector<uint32_t>> SearchSession::candidatePool(const std::string& text,
                                                                  const Query& query) const {
  if (stack_.empty() || stack_.back().generation != generation_) return std::nullopt;
  const Level& top = stack_.back();
  if (!text.starts_with(top.text) ||
      platform::graphemeCount(text) <= platform::graphemeCount(top.text)) {
    return std::nullopt;
  }
  if (!query.isSingleWord() || !top.singleWord) return std::nullopt;
  std::vector<uint32_t> pool;
  pool.reserve(top.results.size());
  for (const Match& match : top.results) pool.push_back(match.id);
  return pool;
}

const std::vector<Match>& SearchSession::search(const std::string& text) {
  static const std::vector<Match> kNothing;
  Query query = QueryParser::parse(text);
  if (query.isEmpty()) {
    stack_.clear();
    return kNothing;
  }
  for (size_t i = stack_.size(); i-- > 0;) {
    if (stack_[i].generation == generation_ && platform::equalAsText(stack_[i].text, text)) {
      stack_.resize(i + 1);
      return stack_.back().results;
    }
  }
  std::vector<Match> results;
  if (auto pool = candidatePool(text, query)) {
    results = matcher_->match(query, std::span<const uint32_t>(*pool));
  } else {
    stack_.clear();
    results = matcher_->matchWithFuzzyFallback(query);
  }
  stack_.push_back(Level{text, std::move(results), generation_, query.isSingleWord()});
  return stack_.back().results;
}

}  // namespace tarvolin
