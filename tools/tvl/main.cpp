// tvl: the command-line face of the engine. Reads the command word, runs one command, prints
// and exits. Exit statuses: 0 when a command completes; 1 after the help text, an unusable
// index or a missing content index; 2 after a content-search usage error.

#include <cstring>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "CommandLine.h"
#include "Commands.h"
#include "Output.h"
#include "tarvolin/platform/HomeDirectory.h"
#include "tarvolin/platform/Unicode.h"

namespace {

constexpr std::string_view kHelp =
    "tvl \u2014 Tarvolin engine CLI\n"
    "\n"
    "  tvl scan [path]      Index a subtree (default: home directory)\n"
    "  tvl search <query>   Search the current index\n"
    "  tvl content [dirs]   Build the document content index (default: Documents,\n"
    "                       Desktop, Downloads)\n"
    "  tvl find <text>      Search document CONTENTS, no name term needed\n"
    "  tvl bench            Report index stats and query timings\n"
    "  tvl measure          [diagnostic] Time matching and ranking separately\n"
    "                       for \"path:playground\" and \"a\" against the current\n"
    "                       index. Not a stable product surface -- exists for\n"
    "                       before/after perf comparisons; may change or be\n"
    "                       removed without notice.";

int help() {
  tvl::output::line(kHelp);
  return 1;
}

// "tvl --version [--json]": the version the build was configured with.
int version(const std::vector<std::string>& args) {
  static constexpr tvl::CommandSyntax kSyntax{
      "tvl --version [--json]", "Print the version of tvl and exit.", {}, 0, 0};
  tvl::ParsedOptions options = tvl::parseOptions(kSyntax, {args.begin() + 1, args.end()});
  if (options.json()) {
    tvl::output::line(tvl::jsonText({{"version", TARVOLIN_VERSION}}));
  } else {
    tvl::output::line("tvl " TARVOLIN_VERSION);
  }
  return 0;
}

struct CommandEntry {
  std::string_view word;
  int (*run)(const tvl::Context&);
  bool needsWords;  // search and find show the help when given nothing to look for
};

constexpr CommandEntry kCommands[] = {
    {"scan", tvl::runScan, false},
    {"search", tvl::runSearch, true},
    {"content", tvl::runContent, false},
    {"find", tvl::runFind, true},
    {"bench", tvl::runBench, false},
    {"measure", tvl::runMeasure, false},
    // Added beside the six of the help text; each parses its words with tvl::parseOptions.
    {"volumes", tvl::runVolumes, false},
    {"estimate", tvl::runEstimate, false},
    {"watch", tvl::runWatch, false},
    {"serve", tvl::runServe, false},
    {"status", tvl::runStatus, false},
    {"dupes", tvl::runDupes, false},
    {"catalog", tvl::runCatalog, false},
    {"query", tvl::runQuery, false},
    {"explain", tvl::runExplain, false},
    {"pick", tvl::runPick, false},
};

int run(int argc, char** argv) {
  tvl::Context context;
  context.home = tarvolin::platform::homeDirectory();
  std::filesystem::path folder =
      std::filesystem::path(context.home) / "Library" / "Application Support" / "Tarvolin";
  context.indexPath = folder / "index.bin";
  context.contentPath = folder / "content.bin";

  std::vector<std::string> args;
  for (int i = 1; i < argc; ++i) {
    args.push_back(tarvolin::platform::decodeUtf8Lossy({argv[i], std::strlen(argv[i])}));
  }
  if (args.empty()) return help();
  if (args[0] == "--version") return version(args);
  for (const CommandEntry& command : kCommands) {
    if (args[0] != command.word) continue;
    context.words.assign(args.begin() + 1, args.end());
    if (command.needsWords && context.words.empty()) return help();
    return command.run(context);
  }
  return help();
}

}  // namespace

namespace tvl {

std::string Context::text() const {
  std::string joined;
  for (size_t i = 0; i < words.size(); ++i) {
    if (i > 0) joined.push_back(' ');
    joined += words[i];
  }
  return joined;
}

}  // namespace tvl

int main(int argc, char** argv) {
  int status;
  try {
    status = run(argc, argv);
  } catch (const tvl::ExitRequest& request) {
    status = request.status;
  } catch (const std::exception& error) {
    tvl::output::errorLine(std::string("tvl: ") + error.what());
    status = 1;
  }
  tvl::output::flush();
  return status;
}
