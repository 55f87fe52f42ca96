#pragma once
// The matcher's compiled regular expressions and their required literals, by pattern text: each
// is worked out on first use and kept for the life of the matcher; an invalid pattern is
// remembered as such.
//
// Filled on the matcher's thread only (while a query is being prepared); the expressions it
// hands out may then be used from any thread.

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "tarvolin/platform/Regex.h"
#include "tarvolin/query/RegexLiteral.h"
#include "tarvolin/query/detail/RequiredLiteral.h"

namespace tarvolin::detail {

class RegexCache {
 public:
  /// The compiled expression for `pattern`, or nullptr when it does not compile. The pointer
  /// stays valid as long as the cache.
  const platform::Regex* compiled(const std::string& pattern) {
    auto found = regexes_.find(pattern);
    if (found == regexes_.end()) {
      found = regexes_.emplace(pattern, platform::Regex::compile(pattern)).first;
    }
    return found->second ? &*found->second : nullptr;
  }

  /// What every match of `pattern` holds: its required run (RegexLiteral::required) or one of
  /// that run's partners; nothing when the pattern has no run. The reference stays valid as long
  /// as the cache.
  const std::optional<RequiredLiteral>& requiredLiteral(const std::string& pattern) {
    auto found = literals_.find(pattern);
    if (found == literals_.end()) {
      std::optional<RequiredLiteral> literal;
      if (std::optional<std::string> run = RegexLiteral::required(pattern)) {
        std::vector<std::string> partners = RegexLiteral::partners(*run);
        literal = RequiredLiteral{std::move(*run), std::move(partners)};
      }
      found = literals_.emplace(pattern, std::move(literal)).first;
    }
    return found->second;
  }

 private:
  std::unordered_map<std::string, std::optional<platform::Regex>> regexes_;
  std::unordered_map<std::string, std::optional<RequiredLiteral>> literals_;
};

}  // namespace tarvolin::detail
