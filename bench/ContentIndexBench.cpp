// The content index: a search over the whole blob for a rare needle (one document holds it) and
// for a common one (every document does, so each is left at its first hit), the same searches
// of the index read back with its trigram side file, the making of that side file, and the
// reading of a content.bin of 20,000 documents, where the JSON table is the part that grows with
// the count.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>

#include "tarvolin/content/ContentIndex.h"
#include "tarvolin/content/ContentIndexTable.h"
#include "tarvolin/content/ContentTrigrams.h"

namespace {

using tarvolin::ContentIndex;

const char* const kWords[] = {"the",     "report", "quarterly", "budget", "and",     "of",
                              "meeting", "notes",  "project",   "plan",   "review",  "with",
                              "draft",   "final",  "summary",   "for",    "a",       "team",
                              "numbers", "sales",  "customer",  "q3",     "invoice", "total"};

// Lower-case prose of `bytes` bytes in lines of about 80.
std::string prose(std::mt19937& random, size_t bytes) {
  std::string text;
  text.reserve(bytes + 16);
  size_t lineStart = 0;
  while (text.size() < bytes) {
    text += kWords[random() % std::size(kWords)];
    if (text.size() - lineStart > 80) {
      text += '\n';
      lineStart = text.size();
    } else {
      text += ' ';
    }
  }
  text.resize(bytes);
  return text;
}

std::string pathOf(size_t i) {
  return "/home/someone/Documents/projects/area-" + std::to_string(i % 97) + "/folder-" +
         std::to_string(i % 13) + "/document number " + std::to_string(i) + ".txt";
}

// 20,000 documents of 3,200 bytes (64 MB of blob); only the last holds the rare needle.
const ContentIndex& searchIndex() {
  static const ContentIndex index = [] {
    std::mt19937 random(42);
    std::vector<ContentIndex::Document> documents;
    std::vector<uint8_t> blob;
    const size_t count = 20'000, each = 3'200;
    for (size_t i = 0; i < count; ++i) {
      std::string text = prose(random, each);
      if (i + 1 == count) text.replace(each - 40, 9, "zanzibarq");
      documents.push_back({pathOf(i), 1.7e9 + static_cast<double>(i),
                           static_cast<int64_t>(blob.size()), static_cast<int64_t>(text.size())});
      blob.insert(blob.end(), text.begin(), text.end());
    }
    return ContentIndex(std::move(documents), std::move(blob));
  }();
  return index;
}

void BM_ContentIndex_Search(benchmark::State& state, const char* needle, size_t expected) {
  const ContentIndex& index = searchIndex();
  const auto limit = static_cast<int64_t>(index.documents().size());
  if (index.search(needle, limit).size() != expected) {
    state.SkipWithError("unexpected hit count");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(index.search(needle, limit));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * index.textBytes());
}
BENCHMARK_CAPTURE(BM_ContentIndex_Search, rare, "zanzibarq", 1)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ContentIndex_Search, common, "report", 20'000)->Unit(benchmark::kMillisecond);

std::filesystem::path temporaryContentPath() {
  return std::filesystem::temp_directory_path() /
         ("tarvolin-bench-content-" + std::to_string(std::random_device()()) + ".bin");
}

void removeContentFile(const std::filesystem::path& path) {
  std::filesystem::remove(path);
  std::filesystem::remove(ContentIndex::trigramPath(path));
}

// The search index written and read back: searches go through the side file.
void BM_ContentIndex_SearchFiltered(benchmark::State& state, const char* needle, size_t expected) {
  const std::filesystem::path path = temporaryContentPath();
  searchIndex().write(path);
  const ContentIndex index = ContentIndex::read(path);
  const auto limit = static_cast<int64_t>(index.documents().size());
  if (!index.hasTrigrams() || index.search(needle, limit).size() != expected) {
    state.SkipWithError("no side file, or unexpected hit count");
    removeContentFile(path);
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(index.search(needle, limit));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * index.textBytes());
  state.counters["side_MB"] =
      static_cast<double>(std::filesystem::file_size(ContentIndex::trigramPath(path))) / 1e6;
  removeContentFile(path);
}
BENCHMARK_CAPTURE(BM_ContentIndex_SearchFiltered, rare, "zanzibarq", 1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ContentIndex_SearchFiltered, common, "report", 20'000)
    ->Unit(benchmark::kMillisecond);

// Making the side file of the 64 MB search index, in blob bytes per second.
void BM_ContentTrigrams_Encode(benchmark::State& state) {
  const ContentIndex& index = searchIndex();
  const tarvolin::ContentTrigrams::Identity identity{1, 2, 20'000};
  for (auto _ : state) {
    std::vector<uint8_t> file =
        tarvolin::ContentTrigrams::encode(index.documents(), index.blob(), identity);
    if (file.empty()) state.SkipWithError("nothing encoded");
    benchmark::DoNotOptimize(file);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * index.textBytes());
}
BENCHMARK(BM_ContentTrigrams_Encode)->Unit(benchmark::kMillisecond)->UseRealTime();

// A content.bin of `count` documents with 1,000 bytes of text each.
std::filesystem::path contentFile(size_t count) {
  std::mt19937 random(7);
  ContentIndex index;
  for (size_t i = 0; i < count; ++i) {
    index.upsert(pathOf(i), 1.7e9 + static_cast<double>(i) / 7.0, prose(random, 1'000));
  }
  std::filesystem::path path = temporaryContentPath();
  index.write(path);
  return path;
}

void BM_ContentIndex_Read(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  const std::filesystem::path path = contentFile(count);
  if (ContentIndex::read(path).documents().size() != count) {
    state.SkipWithError("read back the wrong table");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(ContentIndex::read(path));
  state.counters["file_MB"] = static_cast<double>(std::filesystem::file_size(path)) / 1e6;
  removeContentFile(path);
}
BENCHMARK(BM_ContentIndex_Read)->Arg(20'000)->Unit(benchmark::kMillisecond);

// The table alone: the JSON decoding that every read pays.
void BM_ContentIndex_DecodeTable(benchmark::State& state) {
  std::vector<ContentIndex::Document> documents;
  for (int64_t i = 0; i < state.range(0); ++i) {
    documents.push_back(
        {pathOf(static_cast<size_t>(i)), 1.7e9 + static_cast<double>(i) / 7.0, i * 1'000, 1'000});
  }
  const std::string table = tarvolin::ContentIndexTable::encode(documents);
  if (tarvolin::ContentIndexTable::decode(table) != documents) {
    state.SkipWithError("table does not round-trip");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(tarvolin::ContentIndexTable::decode(table));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * table.size()));
}
BENCHMARK(BM_ContentIndex_DecodeTable)->Arg(20'000)->Unit(benchmark::kMillisecond);

}  // namespace
