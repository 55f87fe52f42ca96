// The service's answer to a changed folder, without the watcher and the publishing around it: a
// folder of 10,000 files is listed again after one file was added to it, against the store that
// knew it before (IndexUpdater::apply, sizes and times of every listed entry refreshed, as the
// service does for an index that keeps them). The argument adds that many records elsewhere in
// the store, in folders that are not listed (1.28 M: the size of the large test tree), whose
// records the update copies into its result.
//
// The folder is made once at /tmp/tarvolin-bench-update/big (10,000 empty files).

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "tarvolin/index/IndexStore.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/scan/AttributeFiller.h"
#include "tarvolin/scan/DirectoryScanner.h"
#include "tarvolin/service/IndexUpdater.h"

namespace {

using namespace tarvolin;
namespace fs = std::filesystem;

const fs::path& updateRoot() {
  static const fs::path root = [] {
    fs::path root = "/tmp/tarvolin-bench-update";
    if (!fs::exists(root / ".complete")) {
      fs::remove_all(root);
      fs::create_directories(root / "big");
      for (int i = 0; i < 10'000; ++i) {
        std::ofstream(root / "big" / ("entry_" + std::to_string(i) + ".txt"));
      }
      std::ofstream(root / ".complete");
    }
    return root;
  }();
  return root;
}

void BM_IndexUpdater_ChangedFolder(benchmark::State& state) {
  const fs::path& root = updateRoot();
  fs::remove(root / "big" / "added.txt");
  DirectoryScanner scanner(ScanPolicy{}, 1, 0, "/nonexistent");
  ScanResult scanned = scanner.scan(root.string(), 0);
  AttributeFiller::fill(scanned.builder, [] { return true; }, false,
                        AttributeFiller::Appetite::working, {});
  uint32_t elsewhere =
      scanned.builder.addEntry(std::string_view("elsewhere"), 0, RecordFlags::isDirectory, 0);
  for (int64_t i = 0; i < state.range(0); ++i) {
    std::string name = "record_" + std::to_string(i) + ".dat";
    scanned.builder.addEntry(std::string_view(name), elsewhere, RecordFlags(), 0);
  }
  fs::path indexPath = fs::temp_directory_path() / "tarvolin-bench-update.bin";
  IndexWriter::write(scanned.builder, {{"local", root.string(), 0, true}}, indexPath);
  auto store = std::make_shared<const IndexStore>(indexPath);
  fs::remove(indexPath);

  IndexUpdater updater(ScanPolicy{}, "/nonexistent");
  std::vector<std::string> folders{(root / "big").string()};
  int64_t added = 0;
  for (auto _ : state) {
    state.PauseTiming();
    std::ofstream(root / "big" / "added.txt");
    state.ResumeTiming();
    IndexUpdater::Tally tally;
    benchmark::DoNotOptimize(updater.apply(store, folders, false, &tally));
    added = tally.added;
    state.PauseTiming();
    fs::remove(root / "big" / "added.txt");
    state.ResumeTiming();
  }
  state.counters["records"] = static_cast<double>(store->count());
  state.counters["added"] = static_cast<double>(added);
}
BENCHMARK(BM_IndexUpdater_ChangedFolder)
    ->Arg(0)
    ->Arg(1'280'000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
