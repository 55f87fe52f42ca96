// Any bytes parse to a query without crashing; parsing is deterministic; and the parser's output
// keeps its shape: the raw text byte for byte, never both and-terms and groups, never one group.
// The query then runs through the matcher over a small index large enough for every fast
// strategy, which must find the same records as the general evaluation of the same query.

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/query/ExtensionIndex.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/QueryParser.h"
#include "tarvolin/query/Ranker.h"

using namespace tarvolin;

namespace {

// 20480 short names (so that even a catastrophic expression stays cheap per name) under a few
// folders, with sizes on most of them.
std::shared_ptr<const IndexStore> fuzzStore() {
  static std::shared_ptr<const IndexStore> store = [] {
    const char* words[] = {"ab",  "Report", "x_y", "IMG_", "a.b", "\xc3\xa9t\xc3\xa9",
                           "src", "..",     "Q"};
    IndexBuilder builder;
    std::vector<uint32_t> folders{builder.addEntry(std::string_view(""), FileRecord::rootParentID,
                                                   RecordFlags::isDirectory, 0)};
    for (uint32_t i = 0; builder.recordCount() < 20480; ++i) {
      std::string name = std::string(words[i % 9]) + std::to_string(i % 97) + words[(i / 9) % 9];
      if (i % 5 == 0) name += ".md";
      bool folder = i % 40 == 0;
      uint32_t id = builder.addEntry(std::string_view(name), folders[i % folders.size()],
                                     folder ? RecordFlags::isDirectory : RecordFlags(), 0);
      if (i % 3) builder.setAttributes(id, i * 37, 1'700'000'000 + i);
      if (folder) folders.push_back(id);
    }
    auto path = std::filesystem::temp_directory_path() /
                ("tarvolin-fuzz-query-" + std::to_string(getpid()) + ".bin");
    IndexWriter::write(builder, {}, path);
    auto loaded = std::make_shared<const IndexStore>(path);
    std::filesystem::remove(path);
    return loaded;
  }();
  return store;
}

std::vector<uint32_t> idsOf(const std::vector<Match>& matches) {
  std::vector<uint32_t> ids;
  for (const Match& m : matches) ids.push_back(m.id);
  return ids;
}

}  // namespace

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

  auto store = fuzzStore();
  // Every ID from the last to the first: candidates out of ID order always take the general
  // evaluation, which comes back in candidate order. Every even ID, in order: a pool that large
  // may take a whole-index scan kept to the pool.
  static const std::vector<uint32_t> all = [&] {
    std::vector<uint32_t> ids(store->count());
    for (uint32_t i = 0; i < ids.size(); ++i) ids[i] = store->count() - 1 - i;
    return ids;
  }();
  static const std::vector<uint32_t> even = [&] {
    std::vector<uint32_t> ids;
    for (uint32_t i = 0; i < store->count(); i += 2) ids.push_back(i);
    return ids;
  }();
  Matcher matcher(store);
  std::vector<Match> fast = matcher.matchWithFuzzyFallback(first);
  std::vector<Match> general = Matcher(store).match(first, std::span<const uint32_t>(all));
  std::reverse(general.begin(), general.end());
  std::vector<Match> exact = matcher.match(first);
  if (idsOf(exact) != idsOf(general)) __builtin_trap();
  std::vector<Match> pooled = Matcher(store).match(first, std::span<const uint32_t>(even));
  std::vector<Match> generalEven;
  for (const Match& match : general) {
    if (match.id % 2 == 0) generalEven.push_back(match);
  }
  if (idsOf(pooled) != idsOf(generalEven)) __builtin_trap();
  // With extension groups (".md" and the runs after "a.b" and ".." have them).
  static const auto groups =
      std::make_shared<const ExtensionIndex>(*ExtensionIndex::build(*store, [] { return false; }));
  Matcher grouped(store);
  grouped.setExtensions(groups);
  if (grouped.match(first) != exact) __builtin_trap();
  if (fast.size() < exact.size() || fast.size() > exact.size() + Matcher::maxFuzzyResults) {
    __builtin_trap();
  }
  Ranker(store).rank(fast, 20);
  return 0;
}
