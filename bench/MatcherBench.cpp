// Matcher and ranker benchmarks over a synthetic index of 2,000,000 records whose names look
// like a real tree's (words, numbers, separators, extensions), folders of about 20 entries.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <optional>
#include <random>

#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/query/ExtensionIndex.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/QueryParser.h"
#include "tarvolin/query/Ranker.h"
#include "tarvolin/query/detail/NameScan.h"

namespace {

using namespace tarvolin;

std::shared_ptr<const IndexStore> benchStore() {
  static std::shared_ptr<const IndexStore> store = [] {
    static const char* words[] = {"lib",    "python3", "share",  "doc",      "include", "linux",
                                  "module", "test",    "config", "index",    "util",    "x86_64",
                                  "locale", "man",     "icons",  "Report",   "data",    "common",
                                  "build",  "src",     "README", "Makefile", "gnu",     "perl"};
    static const char* extensions[] = {".h",   ".py", ".so", ".gz", ".txt", ".html",
                                       ".png", "",    ".pm", ".mo", ".svg", ".c"};
    std::mt19937 random(5);
    IndexBuilder builder(2'000'000, 40'000'000);
    uint32_t folder = builder.addEntry(std::string_view(""), FileRecord::rootParentID,
                                       RecordFlags::isDirectory, 0);
    std::vector<uint32_t> folders{folder};
    while (builder.recordCount() < 2'000'000) {
      std::string name = words[random() % std::size(words)];
      if (random() % 2) name += random() % 2 ? "-" : "_";
      if (random() % 2) name += words[random() % std::size(words)];
      if (random() % 3 == 0) name += std::to_string(random() % 100000);
      bool isFolder = random() % 20 == 0;
      if (!isFolder) name += extensions[random() % std::size(extensions)];
      uint32_t parent =
          folders[folders.size() - 1 - random() % std::min<size_t>(folders.size(), 50)];
      uint32_t id = builder.addEntry(std::string_view(name), parent,
                                     isFolder ? RecordFlags::isDirectory : RecordFlags(), 0);
      if (isFolder) folders.push_back(id);
    }
    auto path = std::filesystem::temp_directory_path() / "tarvolin-bench-matcher.bin";
    IndexWriter::write(builder, {{"local", "/", 0, true}}, path);
    auto loaded = std::make_shared<const IndexStore>(path);
    std::filesystem::remove(path);
    return loaded;
  }();
  return store;
}

// One core scanning every name for a needle that occurs nowhere.
void rangeScan(benchmark::State& state, detail::ScanKernel kernel, const char* needle) {
  auto store = benchStore();
  std::vector<Match> out;
  for (auto _ : state) {
    out.clear();
    detail::scanRange(*store, 0, store->count(), needle, kernel, out);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(store->nameBlob().size()));
  state.counters["hits"] = static_cast<double>(out.size());
}
BENCHMARK_CAPTURE(rangeScan, scalar_rare, detail::ScanKernel::scalar, "qzx")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(rangeScan, sse2_rare, detail::ScanKernel::sse2, "qzx")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(rangeScan, blobSse2_rare, detail::ScanKernel::blobSse2, "qzx")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(rangeScan, blobAvx2_rare, detail::ScanKernel::blobAvx2, "qzx")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(rangeScan, sse2_common, detail::ScanKernel::sse2, "report")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(rangeScan, blobAvx2_common, detail::ScanKernel::blobAvx2, "report")
    ->Unit(benchmark::kMillisecond);
// A first keystroke: a letter most names hold.
BENCHMARK_CAPTURE(rangeScan, sse2_letter, detail::ScanKernel::sse2, "e")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(rangeScan, blobAvx2_letter, detail::ScanKernel::blobAvx2, "e")
    ->Unit(benchmark::kMillisecond);

// With `grouped`, the matcher has the extension groups the service builds for its store.
void matchQuery(benchmark::State& state, const char* text, bool grouped = false) {
  auto store = benchStore();
  Query query = QueryParser::parse(text);
  Matcher matcher(store);
  if (grouped) {
    static const auto groups = std::make_shared<const ExtensionIndex>(
        *ExtensionIndex::build(*store, [] { return false; }));
    matcher.setExtensions(groups);
  }
  size_t count = 0;
  for (auto _ : state) count = matcher.match(query).size();
  state.counters["matches"] = static_cast<double>(count);
}
BENCHMARK_CAPTURE(matchQuery, single_word, "report")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(matchQuery, two_words, "report util")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(matchQuery, path_only, "path:python3")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(matchQuery, compiled, "ext:py !size:>10mb")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(matchQuery, regex, "/^report\\d+/")->Unit(benchmark::kMillisecond)->UseRealTime();
// Required runs holding "s" and "k", which caseless expressions also match as U+017F and U+212A.
BENCHMARK_CAPTURE(matchQuery, regex_s, "/share.*\\.so$/")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(matchQuery, regex_k, "/makefile\\d+/")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
// A run that holds "s" ("json"): scanned for whole, with a second scan for U+017F, instead of
// the common "on" that is left when the run is cut at the "s".
BENCHMARK_CAPTURE(matchQuery, regex_json, "/.json$/")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(matchQuery, regex_or, "/^report\\d+/ | zzzqqq")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(matchQuery, or_groups, "ext:txt | ext:h")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
// A not being typed: nearly every record matches.
BENCHMARK_CAPTURE(matchQuery, negation, "!re")->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_CAPTURE(matchQuery, compiled_grouped, "ext:py !size:>10mb", true)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(matchQuery, or_groups_grouped, "ext:txt | ext:h", true)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Grouping the records by extension, as the service does beside its trigram index.
void BM_ExtensionIndex_Build(benchmark::State& state) {
  auto store = benchStore();
  for (auto _ : state) {
    std::optional<ExtensionIndex> groups = ExtensionIndex::build(*store, [] { return false; });
    state.counters["groups"] = static_cast<double>(groups->groupCount());
    state.counters["MB"] = static_cast<double>(groups->byteSize()) / 1e6;
  }
}
BENCHMARK(BM_ExtensionIndex_Build)->Unit(benchmark::kMillisecond);

void fuzzyFallback(benchmark::State& state) {
  auto store = benchStore();
  Query query = QueryParser::parse("rprtmk");
  Matcher matcher(store);
  for (auto _ : state) benchmark::DoNotOptimize(matcher.matchWithFuzzyFallback(query).size());
}
BENCHMARK(fuzzyFallback)->Unit(benchmark::kMillisecond)->UseRealTime();

// Ranking n matches spread evenly over the index (a fresh ranker each time, so the folder memo
// starts empty): few matches reach few folders, many reach most of them.
void BM_Ranker_Rank(benchmark::State& state) {
  auto store = benchStore();
  auto n = static_cast<uint32_t>(state.range(0));
  std::vector<Match> matches;
  for (uint32_t i = 0; i < n; ++i) {
    auto id = static_cast<uint32_t>(uint64_t{i} * store->count() / n);
    matches.push_back(Match{id, static_cast<MatchQuality>(i % 4), static_cast<int32_t>(i % 30)});
  }
  for (auto _ : state) {
    Ranker ranker(store);
    benchmark::DoNotOptimize(ranker.rank(matches, 20).size());
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * n);
}
// The same with the score table a service or picker builds once per store.
void BM_Ranker_RankByTable(benchmark::State& state) {
  auto store = benchStore();
  static const auto scores = Ranker::scoresOf(store);
  auto n = static_cast<uint32_t>(state.range(0));
  std::vector<Match> matches;
  for (uint32_t i = 0; i < n; ++i) {
    auto id = static_cast<uint32_t>(uint64_t{i} * store->count() / n);
    matches.push_back(Match{id, static_cast<MatchQuality>(i % 4), static_cast<int32_t>(i % 30)});
  }
  Ranker ranker(store);
  ranker.useScores(scores);
  for (auto _ : state) benchmark::DoNotOptimize(ranker.rank(matches, 20).size());
  state.SetItemsProcessed(int64_t(state.iterations()) * n);
}
BENCHMARK(BM_Ranker_RankByTable)->Arg(20000)->Arg(1'000'000)->Unit(benchmark::kMicrosecond);

BENCHMARK(BM_Ranker_Rank)
    ->Arg(300)
    ->Arg(2000)
    ->Arg(4096)
    ->Arg(20000)
    ->Arg(1'000'000)
    ->Unit(benchmark::kMicrosecond);

}  // namespace
