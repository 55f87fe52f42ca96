#pragma once
// Regular expressions through PCRE2: UTF + UCP, optionally caseless and multiline, JIT-compiled
// where the platform allows. A compiled expression is immutable and may be used from any number
// of threads at once; each thread keeps its own match data. Matching is bounded by match and
// depth limits, so a catastrophic pattern gives up (as "no match") instead of running away.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tarvolin::platform {

class Regex {
 public:
  struct Options {
    bool caseless = true;
    bool multiline = false;
  };

  /// Compiles `pattern`; nothing when it is invalid.
  static std::optional<Regex> compile(std::string_view pattern, Options options);
  static std::optional<Regex> compile(std::string_view pattern) { return compile(pattern, {}); }

  /// True when the expression matches somewhere in `subject` (valid UTF-8 expected; invalid
  /// bytes make the match fail rather than crash).
  bool search(std::string_view subject) const;

  /// Byte range [start, end) of the first match, if any.
  std::optional<std::pair<size_t, size_t>> find(std::string_view subject, size_t from = 0) const;

 private:
  struct Code;
  explicit Regex(std::shared_ptr<const Code> code) : code_(std::move(code)) {}
  std::shared_ptr<const Code> code_;
};

}  // namespace tarvolin::platform
