#include "tarvolin/query/Query.h"

#include <cinttypes>
#include <cstdio>
#include <unordered_set>

#include "tarvolin/platform/Unicode.h"

namespace tarvolin {

namespace {

// True when `term`, looking through any depth of not_, has one of the two kinds.
bool isKind(const Term& term, Term::Kind first, Term::Kind second) {
  bool negated = false;
  Term::Kind kind = term.strippingNots(negated).kind();
  return kind == first || kind == second;
}

bool anyTerm(const Query& query, Term::Kind first, Term::Kind second) {
  for (const Term& term : query.andTerms) {
    if (isKind(term, first, second)) return true;
  }
  for (const auto& group : query.orGroups) {
    for (const Term& term : group) {
      if (isKind(term, first, second)) return true;
    }
  }
  return false;
}

// Appends the terms of `terms` that are not top-level contains terms to `kept`, and the texts
// of those that are to `needles`.
void splitContent(const std::vector<Term>& terms, std::vector<Term>& kept,
                  std::vector<std::string>& needles) {
  for (const Term& term : terms) {
    if (term.kind() == Term::Kind::contains) {
      needles.push_back(term.text());
    } else {
      kept.push_back(term);
    }
  }
}

bool equalTermLists(const std::vector<Term>& a, const std::vector<Term>& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (!(a[i] == b[i])) return false;
  }
  return true;
}

const char* kindName(Term::Kind kind) {
  switch (kind) {
    case Term::Kind::substring:
      return "substring";
    case Term::Kind::exactPhrase:
      return "exactPhrase";
    case Term::Kind::regex:
      return "regex";
    case Term::Kind::ext:
      return "ext";
    case Term::Kind::pathContains:
      return "pathContains";
    case Term::Kind::size:
      return "size";
    case Term::Kind::dateModified:
      return "dateModified";
    case Term::Kind::type:
      return "type";
    case Term::Kind::contains:
      return "contains";
    case Term::Kind::not_:
      break;
  }
  return "not";
}

}  // namespace

bool Term::hasText() const {
  switch (kind()) {
    case Kind::substring:
    case Kind::exactPhrase:
    case Kind::regex:
    case Kind::ext:
    case Kind::pathContains:
    case Kind::contains:
      return true;
    case Kind::size:
    case Kind::dateModified:
    case Kind::type:
    case Kind::not_:
      break;
  }
  return false;
}

const std::string& Term::text() const {
  switch (kind()) {
    case Kind::substring:
      return std::get<Text<Kind::substring>>(value_).text;
    case Kind::exactPhrase:
      return std::get<Text<Kind::exactPhrase>>(value_).text;
    case Kind::regex:
      return std::get<Text<Kind::regex>>(value_).text;
    case Kind::ext:
      return std::get<Text<Kind::ext>>(value_).text;
    case Kind::pathContains:
      return std::get<Text<Kind::pathContains>>(value_).text;
    case Kind::contains:
      return std::get<Text<Kind::contains>>(value_).text;
    case Kind::size:
    case Kind::dateModified:
    case Kind::type:
    case Kind::not_:
      break;
  }
  throw std::bad_variant_access();
}

const Term& Term::strippingNots(bool& negated) const {
  negated = false;
  const Term* term = this;
  while (term->kind() == Kind::not_) {
    negated = !negated;
    term = &term->negatedTerm();
  }
  return *term;
}

bool operator==(const Term& a, const Term& b) {
  // A loop rather than recursion, so a long chain of not_ costs no stack.
  const Term* x = &a;
  const Term* y = &b;
  while (x->kind() == Term::Kind::not_ && y->kind() == Term::Kind::not_) {
    if (&x->negatedTerm() == &y->negatedTerm()) return true;
    x = &x->negatedTerm();
    y = &y->negatedTerm();
  }
  if (x->kind() != y->kind()) return false;
  switch (x->kind()) {
    case Term::Kind::size:
      return x->sizeComparison() == y->sizeComparison();
    case Term::Kind::dateModified:
      return x->dateConstraint() == y->dateConstraint();
    case Term::Kind::type:
      return x->typeConstraint() == y->typeConstraint();
    default:
      return platform::equalAsText(x->text(), y->text());
  }
}

std::string Term::description() const {
  std::string out;
  const Term* term = this;
  size_t nots = 0;
  for (; term->kind() == Kind::not_; term = &term->negatedTerm()) {
    out += "not(";
    ++nots;
  }
  out += kindName(term->kind());
  out += '(';
  char buffer[64];
  switch (term->kind()) {
    case Kind::size: {
      const SizeComparison& c = term->sizeComparison();
      const char* op = c.kind == SizeComparison::Kind::greaterThan ? ">"
                       : c.kind == SizeComparison::Kind::lessThan  ? "<"
                                                                   : "=";
      std::snprintf(buffer, sizeof buffer, "%s %" PRIu64, op, c.bytes);
      out += buffer;
      break;
    }
    case Kind::dateModified: {
      const DateConstraint& c = term->dateConstraint();
      if (const auto* within = c.asWithinDays()) {
        std::snprintf(buffer, sizeof buffer, "withinDays %" PRId64, within->days);
      } else if (const auto* month = c.asMonth()) {
        std::snprintf(buffer, sizeof buffer, "month %" PRId64 "-%" PRId64, month->year,
                      month->month);
      } else {
        std::snprintf(buffer, sizeof buffer, "today");
      }
      out += buffer;
      break;
    }
    case Kind::type: {
      TypeConstraint kind = term->typeConstraint();
      out += kind == TypeConstraint::file     ? "file"
             : kind == TypeConstraint::folder ? "folder"
                                              : "app";
      break;
    }
    default:
      out += '"';
      out += term->text();
      out += '"';
      break;
  }
  out += ')';
  out.append(nots, ')');
  return out;
}

bool Query::requiresAttributes() const {
  return anyTerm(*this, Term::Kind::size, Term::Kind::dateModified);
}

bool Query::requiresContentScan() const {
  return anyTerm(*this, Term::Kind::contains, Term::Kind::contains);
}

Query::ContentSplit Query::splittingContentTerms() const {
  ContentSplit split;
  split.name.raw = raw;
  splitContent(andTerms, split.name.andTerms, split.contentNeedles);
  for (const auto& group : orGroups) {
    std::vector<Term> kept;
    splitContent(group, kept, split.contentNeedles);
    if (!kept.empty()) split.name.orGroups.push_back(std::move(kept));
  }
  return split;
}

size_t Query::termCount() const {
  size_t count = andTerms.size();
  for (const auto& group : orGroups) count += group.size();
  return count;
}

namespace {

// `terms` without byte-identical repeats, first occurrences in order; their descriptions
// (which determine a term) joined by NUL go to `key` when asked for.
std::vector<Term> uniqueTerms(const std::vector<Term>& terms, std::string* key) {
  std::vector<Term> unique;
  std::unordered_set<std::string> seen;
  for (const Term& term : terms) {
    std::string description = term.description();
    if (!seen.insert(description).second) continue;
    if (key != nullptr) {
      *key += description;
      key->push_back('\0');
    }
    unique.push_back(term);
  }
  return unique;
}

}  // namespace

Query Query::withoutRepeats() const {
  Query result;
  result.raw = raw;
  result.andTerms = uniqueTerms(andTerms, nullptr);
  std::unordered_set<std::string> seenGroups;
  for (const auto& group : orGroups) {
    std::string key;
    std::vector<Term> unique = uniqueTerms(group, &key);
    if (seenGroups.insert(std::move(key)).second) result.orGroups.push_back(std::move(unique));
  }
  if (result.orGroups.size() == 1) {
    result.andTerms = std::move(result.orGroups.front());
    result.orGroups.clear();
  }
  return result;
}

bool operator==(const Query& a, const Query& b) {
  if (!equalTermLists(a.andTerms, b.andTerms)) return false;
  if (a.orGroups.size() != b.orGroups.size()) return false;
  for (size_t i = 0; i < a.orGroups.size(); ++i) {
    if (!equalTermLists(a.orGroups[i], b.orGroups[i])) return false;
  }
  return platform::equalAsText(a.raw, b.raw);
}

}  // namespace tarvolin
