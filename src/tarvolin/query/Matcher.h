#pragma once
// Evaluates a query against one loaded index and returns the matching records with their match
// quality and offset, in ID order (or candidate order when candidates are given).
//
// For indexes of 20000 records or more it picks a strategy by the query's shape: a vectorised
// substring scan split across processors (optionally narrowed to trigram blocks), a driver-word
// scan for several words, a marked-ancestor pass for a sole path term, the records of an
// extension's group (when an extension index is set), a literal prefilter for
// queries whose matches must all hold one literal (a word, an extension, a regular expression's
// required run or one of the run's partners), and a sharded compiled-term loop. Every strategy
// returns the same records in the same order as the general evaluation; the multi-word scan reports
// the driver word's quality and offset.
//
// One Matcher per store. `match` and `matchWithFuzzyFallback` are called from one thread at a
// time (they fill caches); inside a call, shards run on several threads.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/PathResolver.h"
#include "tarvolin/query/ExtensionIndex.h"
#include "tarvolin/query/Match.h"
#include "tarvolin/query/Query.h"
#include "tarvolin/query/TrigramIndex.h"
#include "tarvolin/query/detail/Evaluator.h"
#include "tarvolin/query/detail/NameScan.h"
#include "tarvolin/query/detail/RegexCache.h"
#include "tarvolin/query/detail/RequiredLiteral.h"
#include "tarvolin/query/detail/Sharding.h"

namespace tarvolin {

class Matcher {
 public:
  static constexpr size_t fuzzyFallbackThreshold = 5;
  static constexpr size_t maxFuzzyResults = 50;
  /// Below this many records every query takes the general evaluation.
  static constexpr uint32_t largeIndexThreshold = 20000;
  /// A single word over candidates in ID order that number more than count / this is scanned
  /// for in the whole index and kept to the candidates: the same matches, found sooner.
  static constexpr uint32_t wholeIndexPoolShare = 32;
  /// Records per shard of a parallel scan.
  static constexpr uint32_t shardUnit = detail::shardUnit;
  /// The most different terms a query may hold. Each term can cost a pass over every name, so
  /// a query pasted by mistake (or made to stall a service) is refused rather than run for
  /// minutes; no typed query comes near it.
  static constexpr size_t maxTerms = 256;

  explicit Matcher(std::shared_ptr<const IndexStore> store);
  ~Matcher();
  Matcher(const Matcher&) = delete;
  Matcher& operator=(const Matcher&) = delete;

  /// The matching records. With `candidates`, exactly those IDs are evaluated, in their order.
  /// Repeated terms are evaluated once. Throws std::length_error when the query holds more
  /// than maxTerms different terms.
  std::vector<Match> match(const Query& query,
                           std::optional<std::span<const uint32_t>> candidates = std::nullopt);

  /// `match`, and when it finds fewer than 5 records for a single word of 3 to 32 bytes, up to
  /// 50 fuzzy hits (best score first) after the exact ones.
  std::vector<Match> matchWithFuzzyFallback(
      const Query& query, std::optional<std::span<const uint32_t>> candidates = std::nullopt);

  /// Whether one term holds for one record. REQUIRES: record < store count.
  bool matches(const Term& term, uint32_t record);

  /// The optional block prefilter built for this store (nullptr: none).
  const std::shared_ptr<const TrigramIndex>& trigrams() const { return trigrams_; }
  /// Sets or replaces the block prefilter (nullptr removes it); between searches only.
  void setTrigrams(std::shared_ptr<const TrigramIndex> trigrams) {
    trigrams_ = std::move(trigrams);
  }

  /// The optional extension groups built for this store (nullptr: none).
  const std::shared_ptr<const ExtensionIndex>& extensions() const { return extensions_; }
  /// Sets or replaces the extension groups, which must have been built for this store (nullptr
  /// removes them); between searches only. Throws std::invalid_argument for groups of a store
  /// of another size.
  void setExtensions(std::shared_ptr<const ExtensionIndex> extensions);

  const IndexStore& store() const { return *store_; }

 private:
  // Decides a record whose name holds the scanned needle (the scan kernels' verdict).
  using Verdict = detail::RecordVerdict;
  // The records whose names hold `needle`; with a verdict, what it keeps of them.
  std::vector<Match> scanNeedle(const std::string& needle, const Verdict* verdict = nullptr);
  std::vector<Match> fullScan(const std::string& needle, const Verdict* verdict);
  std::vector<Match> blockScan(const std::vector<uint32_t>& blocks, const std::string& needle,
                               const Verdict* verdict);
  std::vector<Match> multiTokenMatch(const std::vector<Term>& terms);
  std::vector<Match> pathOnlyMatch(const std::string& needle);
  /// The evaluation of `ids` (all records when absent), in shards when `parallel`; with
  /// `literals` = prefilter, expressions are first held to their required literal.
  std::vector<Match> evaluate(const Query& query, std::optional<std::span<const uint32_t>> ids,
                              bool parallel, detail::Evaluator::Literals literals);
  /// The longest literal that the name of every record matching all of `terms` must hold (or,
  /// for an expression's run, one of its partners), or nothing.
  std::optional<detail::RequiredLiteral> requiredLiteral(const std::vector<Term>& terms);
  /// The general evaluation of `terms`, through the scan for their required literal; nothing
  /// when they have none.
  std::optional<std::vector<Match>> literalMatch(const std::vector<Term>& terms);
  /// Whether extensionRecords answers for `term`: an extension term, with groups set.
  bool hasExtensionRecords(const Term& term) const;
  /// The live records an extension term holds for, ascending: its items' groups, and for an item
  /// too rare for a group, what the scan for "." and the item keeps. Nothing when
  /// !hasExtensionRecords(term).
  std::optional<std::vector<uint32_t>> extensionRecords(const Term& term);
  /// The general evaluation of `terms` over the groups of one of their extension terms, when
  /// that is the cheapest way to them; nothing otherwise.
  std::optional<std::vector<Match>> extensionMatch(const std::vector<Term>& terms);
  /// `terms` through the scan when they are one word, their extension groups, or the scan for
  /// their required literal.
  std::optional<std::vector<Match>> groupMatch(const std::vector<Term>& terms);
  /// Or-groups that each have an extension group or a required literal: their matches, merged.
  std::optional<std::vector<Match>> orGroupsMatch(const std::vector<std::vector<Term>>& groups);
  /// Terms that are all negations of terms with a required literal: every record none holds.
  std::optional<std::vector<Match>> complementMatch(const std::vector<Term>& terms);
  /// What `verdict` keeps of the records whose names `literal` admits, in ID order.
  std::vector<Match> scanLiteral(const detail::RequiredLiteral& literal, const Verdict& verdict);

  std::shared_ptr<const IndexStore> store_;
  PathResolver resolver_;
  std::shared_ptr<const TrigramIndex> trigrams_;
  std::shared_ptr<const ExtensionIndex> extensions_;
  detail::RegexCache regexCache_;
};

}  // namespace tarvolin
