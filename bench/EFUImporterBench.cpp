// File-list import: a generated list of 1,000,000 rows (sizes, file-time dates and attributes
// filled), grouped by folder as listing tools write them: 50 files per folder, folders three
// levels deep below one drive. Reports rows per second on one thread.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "tarvolin/catalog/EFUImporter.h"

namespace {

using namespace tarvolin;

constexpr int kRows = 1'000'000;
constexpr int kFilesPerFolder = 50;

const std::string& generatedList() {
  static const std::string list = [] {
    std::string text = "Filename,Size,Date Modified,Attributes\r\n";
    text.reserve(static_cast<size_t>(kRows) * 90);
    char row[256];
    int rows = 0;
    for (int folder = 0; rows < kRows; ++folder) {
      int length = std::snprintf(
          row, sizeof row, "\"C:\\Users\\me\\Projects%d\\Module%d\",0,%llu,16\r\n", folder / 100,
          folder % 100, 133'000'000'000'000'000ull + static_cast<unsigned long long>(folder));
      text.append(row, static_cast<size_t>(length));
      ++rows;
      for (int file = 0; file < kFilesPerFolder && rows < kRows; ++file, ++rows) {
        length = std::snprintf(
            row, sizeof row,
            "\"C:\\Users\\me\\Projects%d\\Module%d\\source_file_%04d.cpp\",%d,%llu,32\r\n",
            folder / 100, folder % 100, file, (folder * 7919 + file * 104729) % 1'000'000,
            133'000'000'000'000'000ull + static_cast<unsigned long long>(rows) * 10'000'000ull);
        text.append(row, static_cast<size_t>(length));
      }
    }
    return text;
  }();
  return list;
}

void BM_EFUImporter_Build(benchmark::State& state) {
  const std::string& list = generatedList();
  // The list's folders (drive, Users, me, the Projects folders) come on top of its rows.
  EFUImporter::Result check = EFUImporter::build(list);
  if (check.stats.fileCount + check.stats.folderCount < kRows) {
    state.SkipWithError("the import lost rows");
    return;
  }
  for (auto _ : state) {
    EFUImporter::Result result = EFUImporter::build(list);
    benchmark::DoNotOptimize(result.builder.recordCount());
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kRows);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                          static_cast<int64_t>(list.size()));
}
BENCHMARK(BM_EFUImporter_Build)->Unit(benchmark::kMillisecond);

}  // namespace
