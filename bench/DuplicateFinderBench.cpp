// Copies of a name over a store of 2,000,000 records: one pass over the record table. "common"
// seeks a name whose length most records share (every candidate reaches the byte comparison);
// "rare" a name of a length few records have. Both find 20 copies spread through the table.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>

#include "tarvolin/index/DuplicateFinder.h"
#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/IndexWriter.h"

namespace {

using namespace tarvolin;

constexpr uint32_t kRecords = 2'000'000;
constexpr uint32_t kCopies = 20;

std::shared_ptr<const IndexStore> largeStore() {
  static std::shared_ptr<const IndexStore> store = [] {
    IndexBuilder builder(kRecords, 40'000'000);
    std::mt19937 random(3);
    uint32_t folder = builder.addEntry(std::string_view(""), FileRecord::rootParentID,
                                       RecordFlags::isDirectory, 0);
    char name[40];
    for (uint32_t i = 1; builder.recordCount() < kRecords; ++i) {
      bool isFolder = i % 20 == 0;
      int length;
      if (i % (kRecords / kCopies) == 1) {
        length =
            std::snprintf(name, sizeof name, "file_%s.txt", i % 2 ? "COPY_OF_IT1" : "copy_of_it1");
      } else if (i % (kRecords / kCopies) == 2) {
        length = std::snprintf(name, sizeof name, "a_rarely_long_name_%s.pdf", "copy");
      } else {
        length = std::snprintf(name, sizeof name, "file_%07u_%03u.txt", i % 10'000'000,
                               unsigned(random() % 1000));
      }
      uint32_t id = builder.addEntry(std::string_view(name, static_cast<size_t>(length)), folder,
                                     isFolder ? RecordFlags::isDirectory : RecordFlags(), 0);
      builder.setAttributes(id, i % 7 == 0 ? 4096 : i, 0);
      if (isFolder) folder = id;
    }
    auto path = std::filesystem::temp_directory_path() / "tarvolin-bench-dupes.bin";
    IndexWriter::write(builder, {{"local", "/", 0, true}}, path);
    auto loaded = std::make_shared<const IndexStore>(path);
    std::filesystem::remove(path);
    return loaded;
  }();
  return store;
}

void run(benchmark::State& state, std::string_view name) {
  auto store = largeStore();
  auto found = DuplicateFinder::copies(name, false, 4096, *store, std::nullopt, 100);
  if (found.size() != kCopies) {
    state.SkipWithError("unexpected number of copies");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(DuplicateFinder::copies(name, false, 4096, *store, std::nullopt, 100));
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * store->count());
}

void BM_DuplicateFinder_Copies_common(benchmark::State& state) {
  run(state, "FILE_copy_of_it1.txt");
}
BENCHMARK(BM_DuplicateFinder_Copies_common)->Unit(benchmark::kMillisecond);

void BM_DuplicateFinder_Copies_rare(benchmark::State& state) {
  run(state, "a_rarely_long_name_copy.pdf");
}
BENCHMARK(BM_DuplicateFinder_Copies_rare)->Unit(benchmark::kMillisecond);

}  // namespace
