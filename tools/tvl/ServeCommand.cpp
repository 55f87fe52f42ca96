// tvl serve [root]: the long-running service. Loads the index (scanning root, default the home
// folder, when there is none or it cannot be used), answers searches on the socket beside it
// until SIGINT or SIGTERM, then writes the index if it changed and removes the socket.

#include <atomic>
#include <csignal>
#include <filesystem>
#include <system_error>
#include <variant>

#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "tarvolin/index/IndexWriter.h"
#include "tarvolin/platform/ProcessControl.h"
#include "tarvolin/scan/DirectoryScanner.h"
#include "tarvolin/service/LiveIndex.h"
#include "tarvolin/service/ServiceServer.h"

namespace tvl {

namespace {

constexpr int64_t kSeedDepth = 3;
constexpr double kProgressInterval = 0.1;

constexpr CommandSyntax kSyntax{
    "tvl serve [root]",
    "Runs the search service in the foreground until interrupted (SIGINT or SIGTERM).\n"
    "It answers `tvl search` from memory through a socket beside the index. When there is\n"
    "no usable index, it first scans root (default: the home folder), as `tvl scan` does.",
    {},
    0,
    1};

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
  tarvolin::DirectoryScanner scanner(
      tarvolin::ScanPolicy{tarvolin::ScanPolicy::defaultExclusions()}, kSeedDepth,
      kProgressInterval, context.home);
  tarvolin::ScanResult result = scanner.scan(root, 0, {}, [&] {
    if (!stopped && stop.wait(0) != 0) stopped = true;
    return !stopped.load();
  });
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
  std::string root =
      absoluteRoot(options.operands().empty() ? context.home : options.operands().front());
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

  // Before any thread starts, so that only the wait below receives them.
  tarvolin::platform::StopSignals stopSignals;
  std::shared_ptr<const tarvolin::IndexStore> store = loadOrScan(context, root, stopSignals);
  tarvolin::LiveIndex index(context.indexPath, store);
  std::optional<tarvolin::ServiceServer> server;
  try {
    server.emplace(socketPath, index);
  } catch (const std::system_error& error) {
    output::errorLine("tvl: cannot listen at " + socketPath.string() + ": " +
                      error.code().message());
    return 1;
  }
  output::line("Serving " + context.indexPath.string() + " (" + std::to_string(store->count()) +
               " entries) at " + socketPath.string());
  output::flush();

  int signal = stopSignals.wait(-1);
  output::line(signal == SIGINT ? "Interrupted; stopping" : "Terminated; stopping");
  server.reset();
  return 0;
}

}  // namespace tvl
