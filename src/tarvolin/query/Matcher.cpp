#include "tarvolin/query/Matcher.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>

#include "tarvolin/index/ParentWalk.h"
#include "tarvolin/platform/Concurrency.h"
#include "tarvolin/platform/Unicode.h"
#include "tarvolin/query/FuzzyMatcher.h"
#include "tarvolin/query/detail/Evaluator.h"
#include "tarvolin/query/detail/Extensions.h"
#include "tarvolin/query/detail/FuzzyScan.h"
#include "tarvolin/query/detail/MatchSink.h"
#include "tarvolin/query/detail/NameScan.h"
#include "tarvolin/query/detail/Sharding.h"

namespace tarvolin {

namespace {

// The matches whose IDs are in `pool`, both in ascending ID order (duplicates in the pool
// give one match).
std::vector<Match> keptTo(std::vector<Match> matches, std::span<const uint32_t> pool) {
  size_t kept = 0, p = 0;
  for (const Match& match : matches) {
    while (p < pool.size() && pool[p] < match.id) ++p;
    if (p == pool.size()) break;
    if (pool[p] == match.id) matches[kept++] = match;
  }
  matches.resize(kept);
  return matches;
}

bool isNonEmptySubstring(const Term& term) {
  return term.kind() == Term::Kind::substring && !term.text().empty();
}

}  // namespace

Matcher::Matcher(std::shared_ptr<const IndexStore> store)
    : store_(std::move(store)), resolver_(store_) {}

Matcher::~Matcher() = default;

void Matcher::setExtensions(std::shared_ptr<const ExtensionIndex> extensions) {
  if (extensions && extensions->recordCount() != store_->count()) {
    throw std::invalid_argument("the extension groups are not the store's");
  }
  extensions_ = std::move(extensions);
}

std::vector<Match> Matcher::match(const Query& query,
                                  std::optional<std::span<const uint32_t>> candidates) {
  if (query.isEmpty()) return {};
  if (query.termCount() >= 2) {
    Query unique = query.withoutRepeats();
    if (unique.termCount() > maxTerms) {
      throw std::length_error("the query has " + std::to_string(unique.termCount()) +
                              " different terms; at most " + std::to_string(maxTerms) +
                              " can be searched");
    }
    if (unique.termCount() != query.termCount() ||
        unique.orGroups.size() != query.orGroups.size()) {
      return match(unique, candidates);
    }
  }
  // The general evaluation as such: the reference every strategy below is held to.
  using Literals = detail::Evaluator::Literals;
  uint32_t n = store_->count();
  if (candidates) {
    // A word over a large pool in ID order (a search session's first letters hold most of the
    // index) is scanned for in the whole index and kept to the pool: the vectorised scan passes
    // over every name faster than the general evaluation visits a twentieth of them ("re" after
    // "r" on 1.3 million names: 11 ms instead of 27). The scan finds what the evaluation finds,
    // qualities and offsets included.
    if (n >= largeIndexThreshold && query.orGroups.empty() && query.andTerms.size() == 1 &&
        isNonEmptySubstring(query.andTerms[0]) && candidates->size() > n / wholeIndexPoolShare &&
        std::is_sorted(candidates->begin(), candidates->end())) {
      return keptTo(scanNeedle(detail::lowerAscii(query.andTerms[0].text())), *candidates);
    }
    return evaluate(query, candidates, /*parallel=*/true, Literals::ignored);
  }
  if (n < largeIndexThreshold) {
    return evaluate(query, std::nullopt, /*parallel=*/false, Literals::ignored);
  }

  const bool plain = query.orGroups.empty();
  const auto& terms = query.andTerms;
  if (plain && terms.size() == 1 && isNonEmptySubstring(terms[0])) {
    return scanNeedle(detail::lowerAscii(terms[0].text()));
  }
  if (plain && terms.size() >= 2 && std::all_of(terms.begin(), terms.end(), isNonEmptySubstring)) {
    return multiTokenMatch(terms);
  }
  if (plain && terms.size() == 1 && terms[0].kind() == Term::Kind::pathContains &&
      !terms[0].text().empty() && terms[0].text().find('/') == std::string::npos) {
    return pathOnlyMatch(detail::lowerAscii(terms[0].text()));
  }
  // A literal that every match's name must hold (the text of a plain word, "." and the item of
  // a one-item extension term, or the run a regular expression requires) narrows the records
  // to evaluate to those the vectorised scans for it (and for its partners) find; the evaluation
  // over them keeps ID order, so the result is the general evaluation's.
  if (plain) {
    if (auto found = groupMatch(terms)) return std::move(*found);
    if (auto found = complementMatch(terms)) return std::move(*found);
  } else if (auto found = orGroupsMatch(query.orGroups)) {
    return std::move(*found);
  }
  // Everything else: the compiled evaluation over every record, sharded.
  return evaluate(query, std::nullopt, /*parallel=*/true, Literals::prefilter);
}

std::optional<detail::RequiredLiteral> Matcher::requiredLiteral(const std::vector<Term>& terms) {
  std::optional<detail::RequiredLiteral> best;
  auto consider = [&best](detail::RequiredLiteral literal) {
    if (!literal.run.empty() && (!best || literal.run.size() > best->run.size())) {
      best = std::move(literal);
    }
  };
  for (const Term& term : terms) {
    switch (term.kind()) {
      case Term::Kind::substring:
      case Term::Kind::exactPhrase:
        consider({detail::lowerAscii(term.text()), {}});
        break;
      case Term::Kind::ext:
        // The extension follows the name's last ".", so the name holds "." + the extension.
        if (!term.text().empty() && term.text().find(',') == std::string::npos) {
          // Appended, not "." + string: GCC 12 at -O3 takes that for an overlapping copy.
          std::string dotted = ".";
          dotted += detail::lowerAscii(term.text());
          consider({std::move(dotted), {}});
        }
        break;
      case Term::Kind::regex:
        if (const auto& literal = regexCache_.requiredLiteral(term.text())) consider(*literal);
        break;
      default:
        break;
    }
  }
  return best;
}

std::optional<std::vector<Match>> Matcher::literalMatch(const std::vector<Term>& terms) {
  std::optional<detail::RequiredLiteral> literal = requiredLiteral(terms);
  if (!literal) return std::nullopt;
  Query group;
  group.andTerms = terms;
  // Each record the scan finds is evaluated there and then, while its bytes are in cache.
  detail::Evaluator evaluator(resolver_, regexCache_, group,
                              detail::Evaluator::Literals::prefilter);
  Verdict verdict = [&evaluator](uint32_t id) -> std::optional<Match> {
    if (auto outcome = evaluator.evaluate(id)) return Match{id, outcome->quality, outcome->offset};
    return std::nullopt;
  };
  return scanLiteral(*literal, verdict);
}

bool Matcher::hasExtensionRecords(const Term& term) const {
  return extensions_ && term.kind() == Term::Kind::ext;
}

std::optional<std::vector<uint32_t>> Matcher::extensionRecords(const Term& term) {
  if (!hasExtensionRecords(term)) return std::nullopt;
  std::vector<uint32_t> merged;
  for (const std::string& item : detail::extensionItems(term.text())) {
    if (item.empty()) continue;  // names no extension
    std::vector<uint32_t> ids;
    if (std::optional<std::span<const uint32_t>> group = extensions_->records(item)) {
      ids.assign(group->begin(), group->end());
    } else {
      // An extension too rare for a group: the names that hold "." and it, held to it.
      detail::Evaluator evaluator(resolver_, regexCache_, Term::ext(item));
      Verdict verdict = [&evaluator](uint32_t id) -> std::optional<Match> {
        if (evaluator.evaluate(id)) return Match{id, MatchQuality::substring, 0};
        return std::nullopt;
      };
      std::string dotted = ".";
      dotted += item;
      for (const Match& match : scanNeedle(dotted, &verdict)) ids.push_back(match.id);
    }
    if (merged.empty()) {
      merged = std::move(ids);
    } else {
      std::vector<uint32_t> both;
      both.reserve(merged.size() + ids.size());
      std::set_union(merged.begin(), merged.end(), ids.begin(), ids.end(),
                     std::back_inserter(both));
      merged = std::move(both);
    }
  }
  return merged;
}

std::optional<std::vector<Match>> Matcher::extensionMatch(const std::vector<Term>& terms) {
  if (!extensions_) return std::nullopt;
  // The extension term with the fewest records: the others are evaluated over its records.
  std::optional<std::vector<uint32_t>> records;
  size_t chosen = 0;
  for (size_t i = 0; i < terms.size(); ++i) {
    auto found = extensionRecords(terms[i]);
    if (found && (!records || found->size() < records->size())) {
      records = std::move(found);
      chosen = i;
    }
  }
  if (!records) return std::nullopt;
  const IndexStore& store = *store_;
  std::vector<Term> rest = terms;
  rest.erase(rest.begin() + static_cast<ptrdiff_t>(chosen));
  if (rest.empty()) {
    // The group is the answer: it holds no deleted record, and an extension is not scored, so
    // every record matches as a substring at offset 0.
    std::vector<Match> found(records->size());
    for (size_t i = 0; i < found.size(); ++i) {
      found[i] = Match{(*records)[i], MatchQuality::substring, 0};
    }
    return found;
  }
  // A large group, when the names must hold a literal (the extension's own, or another term's):
  // the scan for it reaches the records in order, while the group's records lie apart, each read
  // from a cache line of its own (`ext:py !size:>10mb` on 2 M names: 11 ms through the group,
  // 9 ms through the scan).
  if (records->size() > store.count() / 16 && requiredLiteral(terms)) return std::nullopt;
  // The extension term holds for every record of its group and scores nothing, so the other
  // terms decide, with the qualities and offsets the whole list would give.
  Query others;
  others.andTerms = std::move(rest);
  return evaluate(others, std::span<const uint32_t>(*records), /*parallel=*/true,
                  detail::Evaluator::Literals::prefilter);
}

std::optional<std::vector<Match>> Matcher::groupMatch(const std::vector<Term>& terms) {
  // A lone word: its scan is its evaluation.
  if (terms.size() == 1 && isNonEmptySubstring(terms[0])) {
    return scanNeedle(detail::lowerAscii(terms[0].text()));
  }
  if (auto found = extensionMatch(terms)) return found;
  return literalMatch(terms);
}

std::optional<std::vector<Match>> Matcher::orGroupsMatch(
    const std::vector<std::vector<Term>>& groups) {
  for (const auto& group : groups) {
    bool grouped = std::any_of(group.begin(), group.end(),
                               [this](const Term& term) { return hasExtensionRecords(term); });
    if (!grouped && !requiredLiteral(group)) return std::nullopt;
  }
  // A record found by several groups keeps the best quality, the earliest group's among equals,
  // as the general evaluation does.
  std::vector<Match> merged;
  for (const auto& group : groups) {
    std::vector<Match> found = *groupMatch(group);
    if (merged.empty()) {
      merged = std::move(found);
      continue;
    }
    std::vector<Match> next;
    next.reserve(merged.size() + found.size());
    size_t a = 0, b = 0;
    while (a < merged.size() || b < found.size()) {
      if (b == found.size() || (a < merged.size() && merged[a].id < found[b].id)) {
        next.push_back(merged[a++]);
      } else if (a == merged.size() || found[b].id < merged[a].id) {
        next.push_back(found[b++]);
      } else {
        next.push_back(found[b].quality < merged[a].quality ? found[b] : merged[a]);
        ++a;
        ++b;
      }
    }
    merged = std::move(next);
  }
  return merged;
}

std::optional<std::vector<Match>> Matcher::complementMatch(const std::vector<Term>& terms) {
  for (const Term& term : terms) {
    if (term.kind() != Term::Kind::not_ ||
        (!hasExtensionRecords(term.negatedTerm()) && !requiredLiteral({term.negatedTerm()}))) {
      return std::nullopt;
    }
  }
  // Every term is "not T" with T found by a scan: the matches are the records no T holds. The
  // scans only mark what they find (from several threads, each record by one).
  std::vector<uint8_t> excluded(store_->count(), 0);
  for (const Term& term : terms) {
    if (auto records = extensionRecords(term.negatedTerm())) {
      for (uint32_t id : *records) excluded[id] = 1;
      continue;
    }
    std::vector<Term> inner{term.negatedTerm()};
    Query group;
    group.andTerms = inner;
    detail::Evaluator evaluator(resolver_, regexCache_, group,
                                detail::Evaluator::Literals::prefilter);
    // A word's scan finds exactly the names holding it; other terms need their evaluation.
    bool word =
        inner[0].kind() == Term::Kind::substring || inner[0].kind() == Term::Kind::exactPhrase;
    Verdict mark = [&](uint32_t id) -> std::optional<Match> {
      if (word || evaluator.evaluate(id)) excluded[id] = 1;
      return std::nullopt;
    };
    scanLiteral(*requiredLiteral(inner), mark);
  }
  const IndexStore& store = *store_;
  // Without deleted records the pass reads one byte a record instead of its 24.
  bool live = !store.hasDeletedRecords();
  return detail::sharded(store.count(), [&](size_t begin, size_t end, std::vector<Match>& out) {
    detail::MatchSink sink(out);
    for (size_t i = begin; i < end; ++i) {
      auto id = static_cast<uint32_t>(i);
      if (excluded[id] == 0 && (live || !store[id].flags.contains(RecordFlags::deleted))) {
        sink.push(Match{id, MatchQuality::substring, 0});
      }
    }
  });
}

std::vector<Match> Matcher::scanLiteral(const detail::RequiredLiteral& literal,
                                        const Verdict& verdict) {
  std::vector<Match> found = scanNeedle(literal.run, &verdict);
  // A name may spell a letter of the run with a partner instead; such names are rare, so each
  // partner gets its own scan, merged in ID order. A name holding both is evaluated twice to
  // the same match and kept once.
  for (const std::string& partner : literal.partners) {
    std::vector<Match> more = scanNeedle(partner, &verdict);
    if (more.empty()) continue;
    std::vector<Match> merged;
    merged.reserve(found.size() + more.size());
    std::set_union(found.begin(), found.end(), more.begin(), more.end(), std::back_inserter(merged),
                   [](const Match& a, const Match& b) { return a.id < b.id; });
    found = std::move(merged);
  }
  return found;
}

std::vector<Match> Matcher::evaluate(const Query& query,
                                     std::optional<std::span<const uint32_t>> ids, bool parallel,
                                     detail::Evaluator::Literals literals) {
  detail::Evaluator evaluator(resolver_, regexCache_, query, literals);
  const IndexStore& store = *store_;
  size_t n = ids ? ids->size() : store.count();
  auto body = [&](size_t begin, size_t end, std::vector<Match>& out) {
    detail::MatchSink sink(out);
    for (size_t i = begin; i < end; ++i) {
      uint32_t id = ids ? (*ids)[i] : static_cast<uint32_t>(i);
      if (id >= store.count() || store[id].flags.contains(RecordFlags::deleted)) continue;
      if (auto outcome = evaluator.evaluate(id)) {
        sink.push(Match{id, outcome->quality, outcome->offset});
      }
    }
  };
  if (!parallel) {
    std::vector<Match> out;
    out.reserve(n);
    body(0, n, out);
    return out;
  }
  return detail::sharded(n, body);
}

std::vector<Match> Matcher::scanNeedle(const std::string& needle, const Verdict* verdict) {
  if (trigrams_) {
    if (auto blocks = trigrams_->candidateBlocks(needle))
      return blockScan(*blocks, needle, verdict);
  }
  return fullScan(needle, verdict);
}

std::vector<Match> Matcher::fullScan(const std::string& needle, const Verdict* verdict) {
  const IndexStore& store = *store_;
  detail::ScanKernel kernel = detail::preferredKernel(store);
  return detail::sharded(store.count(), [&](size_t begin, size_t end, std::vector<Match>& out) {
    detail::scanRange(store, static_cast<uint32_t>(begin), static_cast<uint32_t>(end), needle,
                      kernel, out, /*includeDeleted=*/false, verdict);
  });
}

std::vector<Match> Matcher::blockScan(const std::vector<uint32_t>& blocks,
                                      const std::string& needle, const Verdict* verdict) {
  const IndexStore& store = *store_;
  uint32_t n = store.count();
  // Merge runs of consecutive blocks into ranges.
  std::vector<std::pair<uint32_t, uint32_t>> ranges;
  size_t total = 0;
  for (size_t i = 0; i < blocks.size();) {
    size_t j = i + 1;
    while (j < blocks.size() && blocks[j] == blocks[j - 1] + 1) ++j;
    auto first = TrigramIndex::range(blocks[i], n);
    auto last = TrigramIndex::range(blocks[j - 1], n);
    if (first.first < last.second) {
      ranges.emplace_back(first.first, last.second);
      total += last.second - first.first;
    }
    i = j;
  }
  detail::ScanKernel kernel = detail::preferredKernel(store);
  size_t workers = std::min<size_t>(total / shardUnit, platform::activeProcessorCount());
  std::vector<detail::ShardList> slots(ranges.size());
  for (size_t r = 0; r < ranges.size(); ++r) {
    slots[r].matches.reserve(ranges[r].second - ranges[r].first);
  }
  auto scanOne = [&](size_t r) {
    detail::scanRange(store, ranges[r].first, ranges[r].second, needle, kernel, slots[r].matches,
                      /*includeDeleted=*/false, verdict);
  };
  if (workers >= 2 && ranges.size() >= 2) {
    platform::concurrentPerform(ranges.size(), scanOne);
  } else {
    for (size_t r = 0; r < ranges.size(); ++r) scanOne(r);
  }
  return detail::joined(slots);
}

std::vector<Match> Matcher::multiTokenMatch(const std::vector<Term>& terms) {
  struct Token {
    std::string lowered;
    size_t characters;
  };
  std::vector<Token> tokens;
  for (const Term& term : terms) {
    tokens.push_back({detail::lowerAscii(term.text()), platform::graphemeCount(term.text())});
  }
  // The longest word (the first of equals) drives the scan; the others filter its hits. Any
  // driver keeps the same records (those whose names hold every word) and differs only in the
  // quality and offset reported, so when the longest finds none, no other word could: there is
  // no second try.
  auto longest = std::max_element(tokens.begin(), tokens.end(), [](const Token& a, const Token& b) {
    return a.characters < b.characters;
  });
  auto driver = static_cast<size_t>(longest - tokens.begin());
  // A name holding every word lies in a block holding all their sequences: the blocks the
  // words have in common are far fewer than the driver's own ("python3 config").
  std::optional<std::vector<uint32_t>> blocks;
  if (trigrams_) {
    std::vector<std::string_view> words;
    for (const Token& token : tokens) words.push_back(token.lowered);
    blocks = trigrams_->candidateBlocksForAll(words);
  }
  std::vector<Match> hits = blocks ? blockScan(*blocks, tokens[driver].lowered, nullptr)
                                   : fullScan(tokens[driver].lowered, nullptr);
  std::erase_if(hits, [&](const Match& hit) {
    std::string_view name = store_->nameBytes(hit.id);
    for (size_t t = 0; t < tokens.size(); ++t) {
      if (t != driver && detail::firstOccurrence(name, tokens[t].lowered) < 0) return true;
    }
    return false;
  });
  return hits;
}

std::vector<Match> Matcher::pathOnlyMatch(const std::string& needle) {
  const IndexStore& store = *store_;
  uint32_t n = store.count();
  // distance[i]: steps from i up to its nearest record whose own name holds the needle (0: its
  // own name does), capped past the walk limit. Deleted records still name the folders below
  // them. Parents usually come before children, so one pass in ID order reuses the parent's
  // value; a parent that comes later is walked explicitly.
  constexpr uint16_t kFar = ParentWalk::maxDepth + 1;
  std::vector<uint16_t> distance(n, kFar);
  {
    detail::ScanKernel kernel = detail::preferredKernel(store);
    std::vector<Match> own =
        detail::sharded(n, [&](size_t begin, size_t end, std::vector<Match>& out) {
          detail::scanRange(store, static_cast<uint32_t>(begin), static_cast<uint32_t>(end), needle,
                            kernel, out, /*includeDeleted=*/true);
        });
    for (const Match& hit : own) distance[hit.id] = 0;
  }
  std::vector<Match> results;
  results.reserve(n);
  detail::MatchSink sink(results);
  for (uint32_t id = 0; id < n; ++id) {
    const FileRecord& record = store[id];
    uint16_t d = distance[id];
    if (d != 0 && record.parentID != FileRecord::rootParentID) {
      if (record.parentID < id) {
        d = static_cast<uint16_t>(std::min<int>(distance[record.parentID] + 1, kFar));
      } else {
        uint16_t steps = 1;
        for (ParentWalk walk(store.records(), record.parentID); walk.valid();
             walk.next(), ++steps) {
          if (distance[walk.id()] == 0) {
            d = steps;
            break;
          }
        }
      }
      distance[id] = d;
    }
    if (d <= ParentWalk::maxDepth && !record.flags.contains(RecordFlags::deleted)) {
      sink.push(Match{id, MatchQuality::substring, 0});
    }
  }
  return results;
}

bool Matcher::matches(const Term& term, uint32_t record) {
  detail::Evaluator evaluator(resolver_, regexCache_, term);
  return evaluator.evaluate(record).has_value();
}

std::vector<Match> Matcher::matchWithFuzzyFallback(
    const Query& query, std::optional<std::span<const uint32_t>> candidates) {
  std::vector<Match> exact = match(query, candidates);
  if (exact.size() >= fuzzyFallbackThreshold) return exact;
  if (!query.isSingleWord()) return exact;
  std::string needle = detail::lowerAscii(query.andTerms[0].text());
  if (!FuzzyMatcher::isEligible(needle)) return exact;
  std::vector<Match> fuzzy = detail::fuzzyScan(*store_, needle, exact, maxFuzzyResults);
  exact.insert(exact.end(), fuzzy.begin(), fuzzy.end());
  return exact;
}

}  // namespace tarvolin
