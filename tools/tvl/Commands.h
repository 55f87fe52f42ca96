#pragma once
// What every command gets from the entry point, and the commands themselves. Each command returns
// the process exit status; a command that must end the run early (an unusable index, a usage
// error) throws ExitRequest after printing its message.

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace tarvolin {
class IndexStore;
}

namespace tvl {

struct Context {
  std::string home;                   // the home directory's path
  std::filesystem::path indexPath;    // home + "/Library/Application Support/Tarvolin/index.bin"
  std::filesystem::path contentPath;  // the content index beside it
  std::vector<std::string> words;     // the words after the command
  std::string text() const;           // the words joined with single blanks
};

/// Ends the run with `status` once the stack has unwound (so buffers are flushed).
struct ExitRequest {
  int status;
};

/// Loads the index or prints the one message for why it cannot be used and ends with status 1.
std::shared_ptr<const tarvolin::IndexStore> openIndexOrExit(const Context& context);

int runScan(const Context& context);
int runSearch(const Context& context);
int runContent(const Context& context);
int runFind(const Context& context);
int runBench(const Context& context);
int runMeasure(const Context& context);

// Commands beyond the six of the help text (documented in docs/cli.md).
int runVolumes(const Context& context);
int runEstimate(const Context& context);
int runWatch(const Context& context);
int runServe(const Context& context);
int runStatus(const Context& context);
int runDupes(const Context& context);
int runCatalog(const Context& context);
int runQuery(const Context& context);
int runExplain(const Context& context);
int runPick(const Context& context);

}  // namespace tvl
