#pragma once
// The parsed form of a query: a list of terms that must all hold, or a list of alternative groups
// of terms. QueryParser builds it from the user's text; the matcher, the search session, the
// content searcher and the tool consume it. Plain immutable values with structural equality:
// strings compare as Unicode text (canonically equivalent texts are equal), lists in order. A
// value may be read from any number of threads at once.

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

namespace tarvolin {

/// A constraint on a record's size in bytes: strict for greaterThan and lessThan, exact for
/// equalTo.
struct SizeComparison {
  enum class Kind : uint8_t { greaterThan, lessThan, equalTo };

  Kind kind = Kind::equalTo;
  uint64_t bytes = 0;

  static constexpr SizeComparison greaterThan(uint64_t bytes) { return {Kind::greaterThan, bytes}; }
  static constexpr SizeComparison lessThan(uint64_t bytes) { return {Kind::lessThan, bytes}; }
  static constexpr SizeComparison equalTo(uint64_t bytes) { return {Kind::equalTo, bytes}; }

  /// Whether a record of `size` bytes satisfies the comparison.
  constexpr bool holds(uint64_t size) const {
    switch (kind) {
      case Kind::greaterThan:
        return size > bytes;
      case Kind::lessThan:
        return size < bytes;
      case Kind::equalTo:
        break;
    }
    return size == bytes;
  }

  friend bool operator==(const SizeComparison&, const SizeComparison&) = default;
};

/// A constraint on a record's modification time, judged in the user's calendar by the matcher:
/// modified within the last `days` days, during one calendar month, or today.
class DateConstraint {
 public:
  struct WithinDays {
    int64_t days = 0;
    friend bool operator==(const WithinDays&, const WithinDays&) = default;
  };
  struct Month {
    int64_t year = 0;
    int64_t month = 1;  // 1...12 when made by the parser
    friend bool operator==(const Month&, const Month&) = default;
  };
  struct Today {
    friend bool operator==(const Today&, const Today&) = default;
  };
  /// The alternatives in their fixed order; index() is the case number.
  using Value = std::variant<WithinDays, Month, Today>;

  /// withinDays(0), so the type can sit in containers and compiled forms.
  DateConstraint() : value_(WithinDays{0}) {}
  static DateConstraint withinDays(int64_t days) { return DateConstraint(WithinDays{days}); }
  static DateConstraint month(int64_t year, int64_t month) {
    return DateConstraint(Month{year, month});
  }
  static DateConstraint today() { return DateConstraint(Today{}); }

  const Value& value() const { return value_; }
  /// The payload when the constraint is of that case, else null.
  const WithinDays* asWithinDays() const { return std::get_if<WithinDays>(&value_); }
  const Month* asMonth() const { return std::get_if<Month>(&value_); }
  bool isToday() const { return std::holds_alternative<Today>(value_); }

  friend bool operator==(const DateConstraint&, const DateConstraint&) = default;

 private:
  explicit DateConstraint(Value value) : value_(value) {}
  Value value_;
};

/// The kind of entry: `file` holds for every record that is not a directory, `folder` for
/// directories, `app` for application bundles.
enum class TypeConstraint : uint8_t { file, folder, app };

/// One condition of a query. The `not_` case holds another term, boxed and shared (terms never
/// change after construction, so sharing is invisible). Queries look through any depth of `not_`.
class Term {
 public:
  /// The cases in their fixed order (the raw values are the case numbers).
  enum class Kind : uint8_t {
    substring,     // the name contains the text (ASCII case folded); scored
    exactPhrase,   // text given in double quotes, without them; matched like substring
    regex,         // a regular-expression pattern, without its slashes
    ext,           // one extension or several joined by ",", lower case, no leading dot
    pathContains,  // the full path contains the text
    size,          // SizeComparison
    dateModified,  // DateConstraint
    type,          // TypeConstraint
    contains,      // the document text contains the text (content search)
    not_,          // the inner term must not hold
  };

  static Term substring(std::string text) { return Term(Text<Kind::substring>{std::move(text)}); }
  static Term exactPhrase(std::string text) {
    return Term(Text<Kind::exactPhrase>{std::move(text)});
  }
  static Term regex(std::string pattern) { return Term(Text<Kind::regex>{std::move(pattern)}); }
  static Term ext(std::string extensions) { return Term(Text<Kind::ext>{std::move(extensions)}); }
  static Term pathContains(std::string text) {
    return Term(Text<Kind::pathContains>{std::move(text)});
  }
  static Term size(SizeComparison comparison) { return Term(comparison); }
  static Term dateModified(DateConstraint constraint) { return Term(constraint); }
  static Term type(TypeConstraint kind) { return Term(kind); }
  static Term contains(std::string text) { return Term(Text<Kind::contains>{std::move(text)}); }
  /// Named with a trailing underscore because `not` is a C++ keyword.
  static Term not_(Term inner) { return Term(Not{std::make_shared<const Term>(std::move(inner))}); }

  Kind kind() const { return static_cast<Kind>(value_.index()); }

  /// True for the cases whose payload is a string: substring, exactPhrase, regex, ext,
  /// pathContains and contains.
  bool hasText() const;
  /// The string payload (pattern, extension list, needle). REQUIRES: hasText().
  const std::string& text() const;
  /// REQUIRES: kind() == Kind::size.
  const SizeComparison& sizeComparison() const { return std::get<SizeComparison>(value_); }
  /// REQUIRES: kind() == Kind::dateModified.
  const DateConstraint& dateConstraint() const { return std::get<DateConstraint>(value_); }
  /// REQUIRES: kind() == Kind::type.
  TypeConstraint typeConstraint() const { return std::get<TypeConstraint>(value_); }
  /// The term inside a `not_`. REQUIRES: kind() == Kind::not_.
  const Term& negatedTerm() const { return *std::get<Not>(value_).inner; }

  /// The innermost term below any number of `not_`, and whether an odd number of them wrap it.
  const Term& strippingNots(bool& negated) const;

  /// Same case and equal payloads; strings as text, nested terms to any depth.
  friend bool operator==(const Term& a, const Term& b);

  /// A readable form for logs and test failures, e.g. not(ext("md")), size(> 1024).
  std::string description() const;

 private:
  template <Kind K>
  struct Text {
    std::string text;
  };
  struct Not {
    std::shared_ptr<const Term> inner;
  };
  using Value = std::variant<Text<Kind::substring>, Text<Kind::exactPhrase>, Text<Kind::regex>,
                             Text<Kind::ext>, Text<Kind::pathContains>, SizeComparison,
                             DateConstraint, TypeConstraint, Text<Kind::contains>, Not>;

  template <typename T>
  explicit Term(T payload) : value_(std::move(payload)) {}

  Value value_;
};

/// A whole query. The parser fills either `andTerms` or at least two `orGroups`, never both; a
/// consumer looks at `orGroups` whenever it is non-empty and at `andTerms` otherwise.
struct Query {
  /// Every term must hold.
  std::vector<Term> andTerms;
  /// A record matches when all terms of at least one group hold.
  std::vector<std::vector<Term>> orGroups;
  /// The text exactly as the user gave it, before trimming.
  std::string raw;

  /// A query split into the part matched against names and the texts to find in documents.
  struct ContentSplit;

  /// No terms and no groups.
  bool isEmpty() const { return andTerms.empty() && orGroups.empty(); }

  /// True when the query is one plain word: a single substring term, no groups.
  bool isSingleWord() const {
    return orGroups.empty() && andTerms.size() == 1 && andTerms[0].kind() == Term::Kind::substring;
  }
  /// Some term, at any depth of `not_`, is a size or dateModified term: the index must carry
  /// sizes and dates before the query can be answered correctly.
  bool requiresAttributes() const;
  /// Some term, at any depth of `not_`, is a contains term.
  bool requiresContentScan() const;
  /// Moves every top-level contains term (of `andTerms`, then of each group in order) into
  /// `contentNeedles`; groups left empty are dropped; `raw` is kept. A contains term inside a
  /// `not_` stays in the name part.
  ContentSplit splittingContentTerms() const;
  /// The number of terms of `andTerms` and of every group (a `not_` counts as one).
  size_t termCount() const;
  /// The same query with each repeat evaluated once: every term list keeps the first of
  /// byte-identical terms, `orGroups` the first of identical groups, and a single group left
  /// becomes `andTerms`. It matches the same records with the same qualities and offsets.
  Query withoutRepeats() const;

  friend bool operator==(const Query& a, const Query& b);
};

struct Query::ContentSplit {
  Query name;
  std::vector<std::string> contentNeedles;

  friend bool operator==(const ContentSplit&, const ContentSplit&) = default;
};

}  // namespace tarvolin
