// Index benchmarks: the checksum, opening a large index, and writing it.
// Sizes follow a realistic large tree: 2,000,000 records and a 30 MB name blob.

#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <random>

#include "tarvolin/index/FastHash64.h"
#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/IndexWriter.h"

namespace {

using namespace tarvolin;

void BM_FastHash64(benchmark::State& state) {
  std::vector<uint8_t> bytes(static_cast<size_t>(state.range(0)));
  std::mt19937 random(1);
  for (auto& b : bytes) b = static_cast<uint8_t>(random());
  for (auto _ : state) benchmark::DoNotOptimize(FastHash64::hash(bytes));
  state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}
BENCHMARK(BM_FastHash64)->Arg(1 << 20)->Arg(78 << 20);

// 2,000,000 records with 15-byte names on average, in folders of 20.
const IndexBuilder& largeBuilder() {
  static IndexBuilder builder = [] {
    IndexBuilder b(2'000'000, 30'000'000);
    std::mt19937 random(7);
    uint32_t folder =
        b.addEntry(std::string_view(""), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
    char name[32];
    for (uint32_t i = 1; b.recordCount() < 2'000'000; ++i) {
      int length =
          std::snprintf(name, sizeof name, "file_%07u_%03u.txt", i, unsigned(random() % 1000));
      bool isFolder = i % 20 == 0;
      uint32_t id =
          b.addEntry(std::string_view(name, static_cast<size_t>(length - (isFolder ? 4 : 0))),
                     folder, isFolder ? RecordFlags::isDirectory : RecordFlags(), 0);
      if (isFolder) folder = id;
    }
    return b;
  }();
  return builder;
}

std::filesystem::path benchPath() {
  return std::filesystem::temp_directory_path() / "tarvolin-bench-index.bin";
}

// Opening is timed, closing is not. After each opening the same bytes are hashed from memory
// (the builder's copy), under the same cache conditions: "hash_ms" is that cost, and "ratio"
// the opening's cost over it.
void BM_IndexStore_Open(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  const IndexBuilder& builder = largeBuilder();
  IndexWriter::write(builder, {{"local", "/", 0, true}}, benchPath());
  auto records = std::span(reinterpret_cast<const uint8_t*>(builder.records().data()),
                           builder.records().size() * sizeof(FileRecord));
  double openSeconds = 0, hashSeconds = 0;
  for (auto _ : state) {
    auto start = Clock::now();
    std::optional<IndexStore> store(std::in_place, benchPath());
    benchmark::DoNotOptimize(store->count());
    double opened = std::chrono::duration<double>(Clock::now() - start).count();
    store.reset();
    start = Clock::now();
    FastHash64::Rolling hash;
    hash.update(records);
    hash.update(builder.nameBlob());
    benchmark::DoNotOptimize(hash.finish());
    hashSeconds += std::chrono::duration<double>(Clock::now() - start).count();
    openSeconds += opened;
    state.SetIterationTime(opened);
  }
  uint64_t bytes = records.size() + builder.nameBlob().size();
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
  state.counters["records"] = builder.recordCount();
  state.counters["hash_ms"] = hashSeconds * 1e3 / double(state.iterations());
  state.counters["ratio"] = openSeconds / hashSeconds;
  std::filesystem::remove(benchPath());
}
BENCHMARK(BM_IndexStore_Open)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_IndexWriter_Write(benchmark::State& state) {
  const IndexBuilder& builder = largeBuilder();
  for (auto _ : state) IndexWriter::write(builder, {{"local", "/", 0, true}}, benchPath());
  uint64_t bytes = 4096 + builder.records().size() * sizeof(FileRecord) + builder.nameBlob().size();
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
  std::filesystem::remove(benchPath());
}
BENCHMARK(BM_IndexWriter_Write)->Unit(benchmark::kMillisecond);

}  // namespace
