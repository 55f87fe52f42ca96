#pragma once
// The general evaluation of a query against single records: every term kind, negation at any
// depth, or-groups with the best group winning. Terms are compiled once per query (needles
// lower-cased, extension lists split, dates turned into ranges of seconds, expressions looked up
// in the matcher's cache), so evaluating a record allocates nothing except for regular
// expressions over names with invalid UTF-8 and path terms holding "/".
//
// Its plain form is the reference the matcher's fast strategies are held to, so it takes no
// shortcut of theirs: an expression runs on every name. The strategies may ask it to hold an
// expression to its required literal first (a name with neither the literal nor one of its
// partners fails the term at the cost of a byte search instead of a match).
//
// Built on the matcher's thread; `evaluate` may then be called from several threads at once.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tarvolin/index/PathResolver.h"
#include "tarvolin/platform/Calendar.h"
#include "tarvolin/platform/Regex.h"
#include "tarvolin/query/Match.h"
#include "tarvolin/query/Query.h"
#include "tarvolin/query/detail/RegexCache.h"
#include "tarvolin/query/detail/RequiredLiteral.h"

namespace tarvolin::detail {

struct CompiledTerm {
  enum class Kind : uint8_t {
    scoredSubstring,   // substring or phrase, not negated: must occur, graded
    booleanSubstring,  // substring or phrase under a not
    ext,
    type,
    size,
    dateModified,
    regex,
    pathContains,
    always,  // contains: document text is tested elsewhere
  };
  Kind kind = Kind::always;
  bool negated = false;
  std::string needle;                   // lower-cased text; path needle
  std::vector<std::string> extensions;  // lower-cased items of an ext term
  TypeConstraint type = TypeConstraint::file;
  SizeComparison size;
  std::optional<platform::TimeRange> dates;  // nothing: the calendar could not form it
  const platform::Regex* regex = nullptr;    // nothing: invalid pattern, matches no record
  const std::optional<RequiredLiteral>* literal = nullptr;  // an expression's prefilter, if asked
};

class Evaluator {
 public:
  struct Outcome {
    MatchQuality quality;
    int32_t offset;
  };
  /// Whether expressions are held to their required literal before they run.
  enum class Literals { ignored, prefilter };

  /// Compiles the query's and-terms, or each of its or-groups, for the records of the
  /// resolver's store; expressions come from (and are added to) `regexes`. Both must outlive
  /// the evaluator.
  Evaluator(const PathResolver& resolver, RegexCache& regexes, const Query& query,
            Literals literals = Literals::ignored);
  /// Compiles one term on its own (for Matcher::matches).
  Evaluator(const PathResolver& resolver, RegexCache& regexes, const Term& term);

  /// The quality and offset of a record that satisfies the query, nothing otherwise. Deleted
  /// records are the caller's business.
  std::optional<Outcome> evaluate(uint32_t id) const;

 private:
  std::vector<CompiledTerm> compileList(RegexCache& regexes, const std::vector<Term>& terms,
                                        Literals literals);
  void compile(RegexCache& regexes, const Term& term, bool negated, Literals literals,
               std::vector<CompiledTerm>& out);
  std::optional<Outcome> evaluateList(const std::vector<CompiledTerm>& terms, uint32_t id) const;
  bool holds(const CompiledTerm& term, uint32_t id) const;
  bool pathHolds(const CompiledTerm& term, uint32_t id) const;

  const PathResolver& resolver_;
  const IndexStore& store_;
  int64_t now_;
  std::vector<std::vector<CompiledTerm>> groups_;  // one list for and-terms
};

}  // namespace tarvolin::detail
