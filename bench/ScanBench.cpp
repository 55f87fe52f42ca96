// Scan benchmarks: the directory scanner and the attribute filler over a tree on disk, and the
// builder merge that joins the scanner's job builders.
//
// The tree is generated once at /tmp/tarvolin-bench-tree (72,520 entries: 40 top folders,
// 3 levels of 6 folders, 6 files each). Set TARVOLIN_BENCH_TREE to measure another tree, such as
// the large one of scripts/make-large-tree; bench/compare-scan.sh does that.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "tarvolin/index/IndexBuilder.h"
#include "tarvolin/scan/AttributeFiller.h"
#include "tarvolin/scan/DirectoryScanner.h"

namespace {

using namespace tarvolin;

void makeLevel(const std::filesystem::path& folder, int depth) {
  std::filesystem::create_directories(folder);
  for (int f = 0; f < 6; ++f) {
    std::ofstream(folder / ("file_" + std::to_string(f) + (f % 2 ? ".txt" : ".cpp")));
  }
  if (depth == 0) return;
  for (int d = 0; d < 6; ++d) makeLevel(folder / ("folder_" + std::to_string(d)), depth - 1);
}

const std::string& benchTree() {
  static const std::string tree = [] {
    if (const char* chosen = std::getenv("TARVOLIN_BENCH_TREE")) return std::string(chosen);
    std::filesystem::path root = "/tmp/tarvolin-bench-tree";
    if (!std::filesystem::exists(root / ".complete")) {
      std::filesystem::remove_all(root);
      for (int top = 0; top < 40; ++top) makeLevel(root / ("top_" + std::to_string(top)), 3);
      std::ofstream(root / ".complete");
    }
    return root.string();
  }();
  return tree;
}

// Processors kept busy across the timed loop: the process's CPU time (every thread's, as clock()
// counts it) over wall time. A parallel step near 1.0 runs on one thread.
class BusyMeter {
 public:
  BusyMeter() : cpu_(std::clock()), wall_(std::chrono::steady_clock::now()) {}
  void report(benchmark::State& state) const {
    double cpu = static_cast<double>(std::clock() - cpu_) / CLOCKS_PER_SEC;
    double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_).count();
    state.counters["cpu/wall"] = wall > 0 ? cpu / wall : 0;
  }

 private:
  std::clock_t cpu_;
  std::chrono::steady_clock::time_point wall_;
};

DirectoryScanner scanner(int64_t seedDepth) {
  return DirectoryScanner(ScanPolicy{ScanPolicy::defaultExclusions()}, seedDepth, 0.1, "");
}

void BM_DirectoryScanner_Scan(benchmark::State& state) {
  DirectoryScanner scan = scanner(state.range(0));
  int64_t entries = scan.scan(benchTree(), 0).entriesScanned;
  if (entries == 0) state.SkipWithError("empty tree");
  BusyMeter busy;
  for (auto _ : state) {
    ScanResult result = scan.scan(benchTree(), 0);
    benchmark::DoNotOptimize(result.builder.recordCount());
  }
  busy.report(state);
  state.SetItemsProcessed(state.iterations() * entries);
  state.counters["entries"] = static_cast<double>(entries);
}
BENCHMARK(BM_DirectoryScanner_Scan)->Arg(0)->Arg(3)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_AttributeFiller_Fill(benchmark::State& state) {
  IndexBuilder builder = scanner(3).scan(benchTree(), 0).builder;
  auto appetite = static_cast<AttributeFiller::Appetite>(state.range(0));
  AttributeFiller::fill(
      builder, [] { return true; }, false, appetite, nullptr);
  if (!builder.records().back().flags.contains(RecordFlags::attrsFilled)) {
    state.SkipWithError("fill left records empty");
  }
  BusyMeter busy;
  for (auto _ : state) {
    AttributeFiller::fill(
        builder, [] { return true; }, false, appetite, nullptr);
  }
  busy.report(state);
  state.SetItemsProcessed(state.iterations() * builder.recordCount());
  state.counters["records"] = builder.recordCount();
}
BENCHMARK(BM_AttributeFiller_Fill)
    ->Arg(static_cast<int>(AttributeFiller::Appetite::watching))
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// Joining job builders as the scanner does: 2,000 builders of 600 records with 14-byte names
// appended below one folder each, into a builder reserved for the total.
void BM_IndexBuilder_Merge(benchmark::State& state) {
  constexpr int kJobs = 2000, kRecordsPerJob = 600;
  std::vector<IndexBuilder> jobs;
  for (int j = 0; j < kJobs; ++j) {
    IndexBuilder job(kRecordsPerJob, kRecordsPerJob * 14);
    uint32_t folder = FileRecord::rootParentID;
    for (int r = 0; r < kRecordsPerJob; ++r) {
      bool isFolder = r % 10 == 0;
      uint32_t id = job.addEntry(std::string_view(isFolder ? "folder_name_00" : "file_name.txt "),
                                 folder, isFolder ? RecordFlags::isDirectory : RecordFlags(), 0);
      if (isFolder) folder = id;
    }
    jobs.push_back(std::move(job));
  }
  int64_t total = int64_t{kJobs} * kRecordsPerJob;
  for (auto _ : state) {
    IndexBuilder merged(total + 1, total * 14);
    merged.addEntry(std::string_view(""), FileRecord::rootParentID, RecordFlags::isDirectory, 0);
    for (const IndexBuilder& job : jobs) merged.merge(job, 0);
    if (merged.recordCount() != total + 1) state.SkipWithError("wrong count");
    benchmark::DoNotOptimize(merged.records().data());
  }
  state.SetItemsProcessed(state.iterations() * total);
  state.SetBytesProcessed(state.iterations() * total * int64_t(sizeof(FileRecord) + 14));
}
BENCHMARK(BM_IndexBuilder_Merge)->Unit(benchmark::kMillisecond);

}  // namespace
