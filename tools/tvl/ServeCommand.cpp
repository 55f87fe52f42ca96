// tvl serve [root]: the long-running service. Loads the index (scanning root, default the home
// folder, when there is none or it cannot be used), keeps it current with the file system,
// answers searches on the socket beside it until SIGINT or SIGTERM, then writes the index if it
// changed and removes the socket.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <variant>

#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/platform/Memory.h"
#include "tarvolin/platform/ProcessControl.h"
#include "tarvolin/scan/AttributeFiller.h"
#include "tarvolin/scan/DirectoryScanner.h"
#include "tarvolin/service/ServiceServer.h"
#include "tarvolin/service/WatchedIndex.h"

namespace tvl {

namespace {

constexpr int64_t kSeedDepth = 3;
constexpr double kProgressInterval = 0.1;

constexpr OptionSyntax kOptions[] = {
    {"rewrite-interval", 0, "SECONDS",
     "least time between two rewrites of the index file while files change (default 30)"},
};

constexpr CommandSyntax kSyntax{
    "tvl serve [--rewrite-interval SECONDS] [root]",
    "Runs the search service in the foreground until interrupted (SIGINT or SIGTERM).\n"
    "It answers `tvl search` from memory through a socket beside the index and keeps the\n"
    "index current as files change. When there is no usable index, it first scans root\n"
    "(default: the home folder), as `tvl scan` does, and fills sizes and dates.",
    kOptions, 0, 1};

tarvolin::ScanPolicy policyFor(const std::string& root) {
  return tarvolin::ScanPolicy{tarvolin::ScanPolicy::defaultExclusions()}.adding(
      tarvolin::ScanPolicy::mountExclusions(root));
}

std::chrono::milliseconds rewriteInterval(const ParsedOptions& options) {
  std::optional<std::string> text = options.value("rewrite-interval");
  if (!text) return std::chrono::seconds(30);
  char* end = nullptr;
  double seconds = std::strtod(text->c_str(), &end);
  if (text->empty() || *end != '\0' || !(seconds >= 0) || seconds > 86400) {
    usageError(kSyntax, "--rewrite-interval takes a number of seconds from 0 to 86400");
  }
  return std::chrono::milliseconds(static_cast<int64_t>(seconds * 1000));
}

std::string absoluteRoot(const std::string& root) {
  if (root.empty() || root.front() == '/') return root;
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(root, error);
  return error ? root : absolute.lexically_normal().string();
}

// The index at the context's path, scanning and writing it first when it cannot be used.
std::shared_ptr<const tarvolin::IndexStore> loadOrScan(
    const Context& context, const std::string& root, const tarvolin::platform::StopSignals& stop) {
  tarvolin::IndexLoadOutcome outcome = tarvolin::loadIndex(context.indexPath);
  if (auto* store = std::get_if<std::shared_ptr<const tarvolin::IndexStore>>(&outcome)) {
    return *store;
  }
  output::line("No usable index at " + context.indexPath.string() + "; scanning " + root +
               "\u2026");
  output::flush();
  std::atomic<bool> stopped = false;
  tarvolin::DirectoryScanner scanner(policyFor(root), kSeedDepth, kProgressInterval, context.home);
  auto shouldContinue = [&] {
    if (!stopped && stop.wait(0) != 0) stopped = true;
    return !stopped.load();
  };
  tarvolin::ScanResult result = scanner.scan(root, 0, {}, shouldContinue);
  if (stopped) throw ExitRequest{0};
  tarvolin::AttributeFiller::fill(result.builder, shouldContinue, false,
                                  tarvolin::AttributeFiller::Appetite::working, {});
  if (stopped) throw ExitRequest{0};
  output::format("  %lld entries in %.2fs\n", static_cast<long long>(result.entriesScanned),
                 result.duration);
  try {
    tarvolin::IndexWriter::write(result.builder, {{"local", root, 0, true}}, context.indexPath);
  } catch (const std::system_error& error) {
    output::errorLine("tvl: could not write the index to " + context.indexPath.string() + ": " +
                      error.code().message());
    throw ExitRequest{1};
  }
  outcome = tarvolin::loadIndex(context.indexPath);
  if (auto* store = std::get_if<std::shared_ptr<const tarvolin::IndexStore>>(&outcome)) {
    return *store;
  }
  output::errorLine("tvl: the index just written to " + context.indexPath.string() +
                    " cannot be loaded");
  throw ExitRequest{1};
}

}  // namespace

int runServe(const Context& context) {
  ParsedOptions options = parseOptions(kSyntax, context.words);
  std::chrono::milliseconds interval = rewriteInterval(options);
  const bool rootGiven = !options.operands().empty();
  std::string root = absoluteRoot(rootGiven ? options.operands().front() : context.home);
  if (rootGiven) {
    // A root that is not there is a mistake to report, not an empty tree to serve.
    std::error_code error;
    if (!std::filesystem::exists(root, error)) {
      output::errorLine("tvl: " + root + ": no such folder");
      return 1;
    }
    if (!std::filesystem::is_directory(root, error)) {
      output::errorLine("tvl: " + root + ": not a folder");
      return 1;
    }
  }
  std::filesystem::path folder = context.indexPath.parent_path();
  std::filesystem::path socketPath = tarvolin::ServiceProtocol::socketPathFor(context.indexPath);

  std::optional<tarvolin::platform::ExclusiveFileLock> lock;
  try {
    std::filesystem::create_directories(folder);
    // The socket inside is reachable only by the owner of the folder.
    std::filesystem::permissions(folder, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::replace);
    lock = tarvolin::platform::ExclusiveFileLock::tryLock(folder / "tvl.lock");
  } catch (const std::system_error& error) {
    output::errorLine("tvl: cannot prepare " + folder.string() + ": " + error.code().message());
    return 1;
  }
  if (!lock) {
    output::errorLine("tvl: a service is already running for " + context.indexPath.string() +
                      " (see `tvl status`)");
    return 1;
  }

  // Each update builds and drops tables the size of the index: their pages must go back.
  tarvolin::platform::keepLargeBlocksSeparate();
  // Before any thread starts, so that only the wait below receives them.
  tarvolin::platform::StopSignals stopSignals;
  std::shared_ptr<const tarvolin::IndexStore> store = loadOrScan(context, root, stopSignals);
  std::vector<std::string> roots;
  for (const tarvolin::VolumeEntry& volume : store->header().volumes) {
    roots.push_back(volume.mountPath);
  }
  auto isRoot = [&root](const std::string& each) {
    std::error_code error;
    return each == root || std::filesystem::equivalent(each, root, error);
  };
  if (rootGiven && std::none_of(roots.begin(), roots.end(), isRoot)) {
    // The index is served as it is: scanning the root now would replace what it holds.
    std::string covered;
    for (const std::string& each : roots) covered += (covered.empty() ? "" : ", ") + each;
    output::errorLine("tvl: the index holds " + (covered.empty() ? "no folder" : covered) +
                      ", not " + root + "; serving it as it is (`tvl scan " + root + "` indexes " +
                      root + ")");
  }
  tarvolin::ScanPolicy policy = policyFor(roots.empty() ? root : roots.front());
  tarvolin::WatchedIndex::Options watchOptions;
  watchOptions.rewriteInterval = interval;
  // Documents that change are read again; new ones join where `tvl content` looks by default.
  watchOptions.contentPath = context.contentPath;
  watchOptions.contentFolders = {context.home + "/Documents", context.home + "/Desktop",
                                 context.home + "/Downloads"};
  uint32_t entries = store->count();
  // Moved: once changes replace it, the loaded file's mapping goes.
  tarvolin::WatchedIndex index(context.indexPath, std::move(store), policy, context.home,
                               watchOptions);
  index.start();
  std::optional<tarvolin::ServiceServer> server;
  try {
    server.emplace(socketPath, index);
  } catch (const std::system_error& error) {
    output::errorLine("tvl: cannot listen at " + socketPath.string() + ": " +
                      error.code().message());
    return 1;
  }
  output::line("Serving " + context.indexPath.string() + " (" + std::to_string(entries) +
               " entries) at " + socketPath.string());
  output::flush();

  int signal = stopSignals.wait(-1);
  output::line(signal == SIGINT ? "Interrupted; stopping" : "Terminated; stopping");
  server.reset();
  index.stop();
  if (std::string error = index.lastWriteError(); !error.empty()) {
    output::errorLine("tvl: could not write the index to " + context.indexPath.string() + ": " +
                      error);
    return 1;
  }
  return 0;
}

}  // namespace tvl
