// tvl scan [path]: indexes one subtree with the default exclusions and writes it as the current
// name index, with one volume entry for the scanned root. Sizes and dates are not read.

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "Commands.h"
#include "Output.h"
#include "Progress.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/platform/FolderLock.h"
#include "tarvolin/scan/DirectoryScanner.h"

namespace tvl {

namespace {

constexpr int64_t kSeedDepth = 3;
constexpr double kProgressInterval = 0.1;
constexpr double kShortestDuration = 0.001;  // seconds; keeps the rate finite

// A relative root is taken from the current folder: the index stores absolute paths.
std::string absoluteRoot(const std::string& root) {
  if (root.empty() || root.front() == '/') return root;
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(root, error);
  if (error) return root;
  std::string text = absolute.lexically_normal().string();
  return text;
}

}  // namespace

int runScan(const Context& context) {
  std::string root = absoluteRoot(context.words.empty() ? context.home : context.words.front());
  output::line("Scanning " + root + "\u2026");
  output::flush();  // show the line while the scan runs

  tarvolin::DirectoryScanner scanner(
      tarvolin::ScanPolicy{tarvolin::ScanPolicy::defaultExclusions()}.adding(
          tarvolin::ScanPolicy::mountExclusions(root)),
      kSeedDepth, kProgressInterval, context.home);
  Progress progress("entries");
  tarvolin::ScanResult result = scanner.scan(root, 0, progress.callback(), [] { return true; });
  progress.finish();

  double seconds = std::max(result.duration, kShortestDuration);
  auto rate = static_cast<long long>(static_cast<double>(result.entriesScanned) / seconds);
  output::format("  %lld entries in %.2fs (%lld/s), %lld unreadable\n",
                 static_cast<long long>(result.entriesScanned), result.duration, rate,
                 static_cast<long long>(result.directoriesDenied));

  std::string indexPath = context.indexPath.string();
  try {
    // The writer waits for another writer of the same index; say why the command pauses.
    std::error_code missing;
    std::filesystem::path folder = context.indexPath.parent_path();
    if (std::filesystem::is_directory(folder, missing) &&
        !tarvolin::platform::FolderLock::tryLock(folder)) {
      output::errorLine("tvl: another scan is writing " + indexPath + "; waiting for it to finish");
    }
    tarvolin::IndexWriter::write(result.builder, {{"local", root, 0, true}}, context.indexPath);
  } catch (const std::system_error& error) {
    output::errorLine("tvl: could not write the index to " + indexPath + ": " +
                      error.code().message());
    return 1;
  }
  output::line("  written to " + indexPath);
  return 0;
}

}  // namespace tvl
