// Trigram index build over one million realistic names.

#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "tarvolin/query/TrigramIndex.h"

namespace {

std::vector<std::string> millionNames() {
  static const char* words[] = {"report", "final",  "draft", "IMG",   "photo",  "index", "main",
                                "config", "readme", "test",  "build", "module", "util",  "data"};
  static const char* extensions[] = {".txt", ".md", ".jpg", ".h", ".cpp", ".json", ".pdf", ""};
  std::mt19937 random(3);
  std::vector<std::string> names;
  names.reserve(1'000'000);
  for (int i = 0; i < 1'000'000; ++i) {
    std::string name = words[random() % 14];
    name += '_';
    name += words[random() % 14];
    name += std::to_string(random() % 10000);
    name += extensions[random() % 8];
    names.push_back(std::move(name));
  }
  return names;
}

void BM_TrigramIndex_Build(benchmark::State& state) {
  static const std::vector<std::string> names = millionNames();
  for (auto _ : state) {
    auto index =
        tarvolin::TrigramIndex::build([&](uint32_t id) { return std::string_view(names[id]); },
                                      static_cast<uint32_t>(names.size()), nullptr);
    benchmark::DoNotOptimize(index.byteSize());
    state.counters["keys"] = static_cast<double>(index.keys().size());
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(names.size()));
}
BENCHMARK(BM_TrigramIndex_Build)->Unit(benchmark::kMillisecond);

}  // namespace
