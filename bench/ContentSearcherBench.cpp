// Content searcher benchmarks: a direct search of 3,000 generated text files (1 to 64 KiB of
// words, about 100 MB in all, read from the page cache after the first run), and the folded byte
// scan on its own. Files per second are the items, MB/s the bytes read.

#include <benchmark/benchmark.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <variant>
#include <vector>

#include "tarvolin/content/ContentSearcher.h"

namespace {

using namespace tarvolin;

constexpr int kFileCount = 3000;
constexpr int kFilesWithWord = 30;  // every hundredth file holds the rare word once

// The generated tree, made once and removed at exit.
class TextTree {
 public:
  static const TextTree& shared() {
    static TextTree tree;
    return tree;
  }
  ~TextTree() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }

  const std::vector<std::string>& paths() const { return paths_; }
  int64_t totalBytes() const { return totalBytes_; }

 private:
  TextTree() {
    root_ = std::filesystem::temp_directory_path() / "tarvolin-bench-content";
    std::filesystem::remove_all(root_);
    std::mt19937 random(11);
    const std::vector<std::string> words = {"the",   "report", "budget", "Quarter", "meeting",
                                            "notes", "and",    "with",   "Project", "review",
                                            "data",  "of",     "plan",   "summary", "team"};
    for (int i = 0; i < kFileCount; ++i) {
      // Names are appended to, not formed as "literal" + string: GCC 12 at -O3 takes the latter
      // for an overlapping copy (-Wrestrict).
      std::string folderName = "d", fileName = "f";
      folderName += std::to_string(i % 30);
      fileName += std::to_string(i);
      fileName += ".txt";
      std::filesystem::path folder = root_ / folderName;
      std::filesystem::create_directories(folder);
      size_t size = 1024 + random() % (64 * 1024);
      std::string text;
      while (text.size() < size) {
        text += words[random() % words.size()];
        text += random() % 12 == 0 ? '\n' : ' ';
      }
      if (i % (kFileCount / kFilesWithWord) == 0) {
        text.insert(text.size() / 2, " Zanzibar ");
      }
      paths_.push_back((folder / fileName).string());
      std::ofstream(paths_.back(), std::ios::binary) << text;
      totalBytes_ += static_cast<int64_t>(text.size());
    }
  }

  std::filesystem::path root_;
  std::vector<std::string> paths_;
  int64_t totalBytes_ = 0;
};

void searchTree(benchmark::State& state, const std::string& needle, bool caseSensitive) {
  const TextTree& tree = TextTree::shared();
  auto run = [&] {
    return ContentSearcher::search(needle, tree.paths(), caseSensitive, kFileCount);
  };
  ContentSearcher::Outcome first = run();
  const auto* hits = std::get_if<std::vector<ContentSearcher::Hit>>(&first);
  if (hits == nullptr || hits->size() != kFilesWithWord) {
    state.SkipWithError("unexpected number of hits");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(run());
  state.SetItemsProcessed(state.iterations() * kFileCount);
  state.SetBytesProcessed(state.iterations() * tree.totalBytes());
}

void BM_ContentSearcher_Literal(benchmark::State& state) { searchTree(state, "zanzibar", false); }
BENCHMARK(BM_ContentSearcher_Literal)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ContentSearcher_LiteralCaseSensitive(benchmark::State& state) {
  searchTree(state, "Zanzibar", true);
}
BENCHMARK(BM_ContentSearcher_LiteralCaseSensitive)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ContentSearcher_Regex(benchmark::State& state) {
  searchTree(state, "/zanz[aeiou]bar/", false);
}
BENCHMARK(BM_ContentSearcher_Regex)->Unit(benchmark::kMillisecond)->UseRealTime();

// The folded scan over 1 MiB of text that holds the needle only at its end.
void BM_ContentSearcher_FindFolded(benchmark::State& state) {
  std::string text(static_cast<size_t>(state.range(0)), ' ');
  std::mt19937 random(3);
  for (char& c : text) c = "abcdefghij ZANZ\n"[random() % 16];
  text.replace(text.size() - 8, 8, "ZANZIBAR");
  if (ContentSearcher::findFolded(text, "zanzibar") != text.size() - 8) {
    state.SkipWithError("needle not found at the end");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(ContentSearcher::findFolded(text, "zanzibar"));
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ContentSearcher_FindFolded)->Arg(1 << 20);

}  // namespace
