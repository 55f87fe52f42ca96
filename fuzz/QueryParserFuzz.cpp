// Any bytes parse to a query without crashing; parsing is deterministic; and the parser's output
// keeps its shape: the raw text byte for byte, never both and-terms and groups, never one group.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tarvolin/query/QueryParser.h"

using namespace tarvolin;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  Query first = QueryParser::parse(text);
  Query second = QueryParser::parse(text);
  if (!(first == second)) __builtin_trap();
  if (first.raw != text) __builtin_trap();
  if (!first.andTerms.empty() && !first.orGroups.empty()) __builtin_trap();
  if (first.orGroups.size() == 1) __builtin_trap();
  for (const auto& group : first.orGroups) {
    if (group.empty()) __builtin_trap();
  }
  // Exercise the derived views too.
  (void)first.requiresAttributes();
  (void)first.requiresContentScan();
  Query::ContentSplit split = first.splittingContentTerms();
  if (split.name.raw != first.raw) __builtin_trap();
  for (const Term& term : first.andTerms) (void)term.description();
  (void)QueryParser::splitTopLevelOr(text);
  return 0;
}
