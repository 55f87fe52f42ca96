#include "tarvolin/query/detail/Evaluator.h"

#include "tarvolin/index/ParentWalk.h"
#include "tarvolin/platform/Unicode.h"
#include "tarvolin/query/detail/Extensions.h"
#include "tarvolin/query/detail/NameScan.h"

namespace tarvolin::detail {

namespace {

bool equalFoldedBytes(std::string_view a, std::string_view lowered) {
  return a.size() == lowered.size() &&
         equalFolded(reinterpret_cast<const uint8_t*>(a.data()),
                     reinterpret_cast<const uint8_t*>(lowered.data()), a.size());
}

std::optional<platform::TimeRange> rangeFor(const DateConstraint& constraint, int64_t now) {
  if (const auto* within = constraint.asWithinDays()) {
    auto start = platform::daysBefore(now, within->days);
    if (!start) return std::nullopt;
    return platform::TimeRange{*start, INT64_MAX};
  }
  if (const auto* month = constraint.asMonth())
    return platform::localMonth(month->year, month->month);
  return platform::localDay(now);
}

}  // namespace

Evaluator::Evaluator(const PathResolver& resolver, RegexCache& regexes, const Query& query,
                     Literals literals)
    : resolver_(resolver), store_(resolver.store()), now_(platform::nowSeconds()) {
  if (query.orGroups.empty()) {
    groups_.push_back(compileList(regexes, query.andTerms, literals));
  } else {
    for (const auto& group : query.orGroups) {
      groups_.push_back(compileList(regexes, group, literals));
    }
  }
}

Evaluator::Evaluator(const PathResolver& resolver, RegexCache& regexes, const Term& term)
    : resolver_(resolver), store_(resolver.store()), now_(platform::nowSeconds()) {
  groups_.emplace_back();
  compile(regexes, term, false, Literals::ignored, groups_.back());
}

std::vector<CompiledTerm> Evaluator::compileList(RegexCache& regexes,
                                                 const std::vector<Term>& terms,
                                                 Literals literals) {
  std::vector<CompiledTerm> compiled;
  for (const Term& term : terms) compile(regexes, term, false, literals, compiled);
  return compiled;
}

void Evaluator::compile(RegexCache& regexes, const Term& term, bool negated, Literals literals,
                        std::vector<CompiledTerm>& out) {
  CompiledTerm c;
  c.negated = negated;
  switch (term.kind()) {
    case Term::Kind::not_:
      return compile(regexes, term.negatedTerm(), !negated, literals, out);
    case Term::Kind::substring:
    case Term::Kind::exactPhrase:
      c.kind = negated ? CompiledTerm::Kind::booleanSubstring : CompiledTerm::Kind::scoredSubstring;
      c.needle = lowerAscii(term.text());
      break;
    case Term::Kind::ext: {
      c.kind = CompiledTerm::Kind::ext;
      c.extensions = extensionItems(term.text());
      break;
    }
    case Term::Kind::type:
      c.kind = CompiledTerm::Kind::type;
      c.type = term.typeConstraint();
      break;
    case Term::Kind::size:
      c.kind = CompiledTerm::Kind::size;
      c.size = term.sizeComparison();
      break;
    case Term::Kind::dateModified:
      c.kind = CompiledTerm::Kind::dateModified;
      c.dates = rangeFor(term.dateConstraint(), now_);
      break;
    case Term::Kind::regex:
      c.kind = CompiledTerm::Kind::regex;
      c.regex = regexes.compiled(term.text());
      if (literals == Literals::prefilter) c.literal = &regexes.requiredLiteral(term.text());
      break;
    case Term::Kind::pathContains:
      c.kind = CompiledTerm::Kind::pathContains;
      c.needle = term.text().find('/') == std::string::npos ? lowerAscii(term.text())
                                                            : platform::caseFold(term.text());
      break;
    case Term::Kind::contains:
      c.kind = CompiledTerm::Kind::always;
      break;
  }
  out.push_back(std::move(c));
}

std::optional<Evaluator::Outcome> Evaluator::evaluate(uint32_t id) const {
  if (groups_.size() == 1) return evaluateList(groups_[0], id);
  std::optional<Outcome> best;
  for (const auto& group : groups_) {
    auto outcome = evaluateList(group, id);
    if (outcome && (!best || outcome->quality < best->quality)) best = outcome;
  }
  return best;
}

std::optional<Evaluator::Outcome> Evaluator::evaluateList(const std::vector<CompiledTerm>& terms,
                                                          uint32_t id) const {
  const IndexStore& store = store_;
  std::optional<Outcome> best;
  for (const CompiledTerm& term : terms) {
    if (term.kind == CompiledTerm::Kind::scoredSubstring) {
      std::string_view name = store.nameBytes(id);
      int position = firstOccurrence(name, term.needle);
      if (position < 0) return std::nullopt;
      MatchQuality quality = qualityAt(name, static_cast<size_t>(position), term.needle.size());
      if (!best || quality < best->quality) best = Outcome{quality, position};
    } else if (!holds(term, id)) {
      return std::nullopt;
    }
  }
  if (!best) return Outcome{MatchQuality::substring, 0};
  return best;
}

bool Evaluator::holds(const CompiledTerm& term, uint32_t id) const {
  const IndexStore& store = store_;
  const FileRecord& record = store[id];
  bool result = false;
  switch (term.kind) {
    case CompiledTerm::Kind::scoredSubstring:
    case CompiledTerm::Kind::booleanSubstring:
      result = firstOccurrence(store.nameBytes(id), term.needle) >= 0;
      break;
    case CompiledTerm::Kind::ext: {
      auto extension = extensionOf(store.nameBytes(id));
      if (extension) {
        for (const std::string& item : term.extensions) {
          if (equalFoldedBytes(*extension, item)) {
            result = true;
            break;
          }
        }
      }
      break;
    }
    case CompiledTerm::Kind::type:
      switch (term.type) {
        case TypeConstraint::file:
          result = !record.flags.contains(RecordFlags::isDirectory);
          break;
        case TypeConstraint::folder:
          result = record.flags.contains(RecordFlags::isDirectory);
          break;
        case TypeConstraint::app:
          result = record.flags.contains(RecordFlags::isApp);
          break;
      }
      break;
    case CompiledTerm::Kind::size:
      result = record.flags.contains(RecordFlags::attrsFilled) && term.size.holds(record.size);
      break;
    case CompiledTerm::Kind::dateModified:
      result = record.flags.contains(RecordFlags::attrsFilled) && term.dates &&
               term.dates->contains(record.mtime);
      break;
    case CompiledTerm::Kind::regex: {
      if (term.regex == nullptr) break;
      std::string_view name = store.nameBytes(id);
      if (term.literal && *term.literal && !(*term.literal)->admits(name)) break;
      if (platform::isValidUtf8(name)) {
        result = term.regex->search(name);
      } else {
        result = term.regex->search(platform::decodeUtf8Lossy(name));
      }
      break;
    }
    case CompiledTerm::Kind::pathContains:
      result = pathHolds(term, id);
      break;
    case CompiledTerm::Kind::always:
      result = true;
      break;
  }
  return result != term.negated;
}

bool Evaluator::pathHolds(const CompiledTerm& term, uint32_t id) const {
  if (term.needle.empty()) return false;
  if (term.needle.find('/') != std::string::npos) {
    std::string path = platform::caseFold(resolver_.absolutePath(id));
    return path.find(term.needle) != std::string::npos;
  }
  for (ParentWalk walk(store_.records(), id); walk.valid(); walk.next()) {
    if (firstOccurrence(store_.nameBytes(walk.id()), term.needle) >= 0) return true;
  }
  return false;
}

}  // namespace tarvolin::detail
