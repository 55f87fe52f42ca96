// tvl watch: prints the watcher's signals as they arrive, one line each, until SIGINT or SIGTERM
// ends the run (status 0). Status 1 when a folder to watch does not exist or nothing can be
// watched; 2 for a usage error.

#include <charconv>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "tarvolin/platform/SerialQueue.h"
#include "tarvolin/platform/SignalWait.h"
#include "tarvolin/watch/FileSystemWatcher.h"

namespace tvl {
namespace {

constexpr OptionSyntax kOptions[] = {
    {"latency", 0, "SECONDS",
     "gather the events after the first of a quiet period for this long (default 0)"},
    {"json", 0, "", "one JSON object per line"},
};

constexpr CommandSyntax kSyntax{
    "tvl watch [--latency SECONDS] [--json] [path ...]",
    "Watches the folders (default: the home folder) and everything below them, and prints each\n"
    "change signal as it arrives until interrupted: \"changed PATH\" for every folder whose\n"
    "entries changed, \"rescan\" when events were lost and everything must be scanned again,\n"
    "\"history-done\" when a replay of past events is over.",
    kOptions};

double parseLatency(const ParsedOptions& options) {
  std::optional<std::string> text = options.value("latency");
  if (!text) return 0;
  double seconds = 0;
  auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), seconds);
  if (error != std::errc() || end != text->data() + text->size() || !std::isfinite(seconds) ||
      seconds < 0 || seconds > 86400) {
    usageError(kSyntax, "--latency wants a number of seconds from 0 to 86400");
  }
  return seconds;
}

void print(const tarvolin::FileSystemWatcherSignal& signal, bool json) {
  using Kind = tarvolin::FileSystemWatcherSignal::Kind;
  switch (signal.kind) {
    case Kind::changedPaths:
      for (const std::string& path : signal.paths) {
        output::line(json ? jsonText({{"signal", "changed"}, {"path", path}}) : "changed " + path);
      }
      break;
    case Kind::mustFullRescan:
      output::line(json ? jsonText({{"signal", "rescan"}}) : "rescan");
      break;
    case Kind::historyDone:
      output::line(json ? jsonText({{"signal", "history-done"}}) : "history-done");
      break;
  }
  output::flush();
}

}  // namespace

int runWatch(const Context& context) {
  ParsedOptions options = parseOptions(kSyntax, context.words);
  double latency = parseLatency(options);
  std::vector<std::string> paths = options.operands();
  if (paths.empty()) paths.push_back(context.home);
  for (const std::string& path : paths) {
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
      output::errorLine("tvl: " + path + ": no such folder");
      return 1;
    }
    if (!std::filesystem::is_directory(path, error)) {
      output::errorLine("tvl: " + path + ": not a folder");
      return 1;
    }
  }

  // Blocked before any thread starts, so the signals wait for sigwait below and no thread of the
  // watcher or the queue is interrupted by them.
  tarvolin::platform::SignalWait interrupt({SIGINT, SIGTERM});
  bool json = options.json();
  {
    tarvolin::platform::SerialQueue queue;
    tarvolin::FileSystemWatcher watcher(
        paths, tarvolin::FileSystemWatcher::sinceNow, latency, queue,
        [json](const tarvolin::FileSystemWatcherSignal& signal) { print(signal, json); });
    watcher.start();
    if (!watcher.isStarted()) {
      output::errorLine("tvl: cannot watch: the system refused an event queue");
      return 1;
    }
    interrupt.wait();
    watcher.stop();
  }  // the queue drains before the lines are flushed for the last time
  output::flush();
  return 0;
}

}  // namespace tvl
