#pragma once
// What a name must hold for a query to have a chance of matching it, for the matcher to scan for
// before it evaluates anything: a run of bytes compared with ASCII case folding, or, when the
// run comes from a regular expression, one of the characters beyond ASCII that the expression's
// caseless matching takes for a letter of the run (U+212A for "k", U+017F for "s"). A superset:
// every name it admits must still be evaluated.
// Immutable once built; any thread.

#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/query/detail/NameScan.h"

namespace tarvolin::detail {

struct RequiredLiteral {
  std::string run;                    // lower-cased, non-empty
  std::vector<std::string> partners;  // UTF-8 spellings matched byte for byte; rare in names

  /// True when `name` holds the run (ASCII-folded) or any partner.
  bool admits(std::string_view name) const {
    if (firstOccurrence(name, run) >= 0) return true;
    for (const std::string& partner : partners) {
      if (name.find(partner) != std::string_view::npos) return true;
    }
    return false;
  }
};

}  // namespace tarvolin::detail
