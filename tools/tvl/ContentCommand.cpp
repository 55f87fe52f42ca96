// tvl content [dirs]: builds the content index of the documents below the folders (by default
// the home folder's Documents, Desktop and Downloads) and writes it as content.bin beside the
// name index; then reports its size and the time the build took.

#include <filesystem>
#include <system_error>

#include "Commands.h"
#include "Output.h"
#include "Progress.h"
#include "tarvolin/content/ContentIndexBuilder.h"
#include "tarvolin/platform/Clock.h"

namespace tvl {

int runContent(const Context& context) {
  std::vector<std::string> folders = context.words;
  if (folders.empty()) {
    folders = {context.home + "/Documents", context.home + "/Desktop", context.home + "/Downloads"};
  }
  output::line("Reading documents in:");
  for (const std::string& folder : folders) output::line("  " + folder);
  output::flush();  // show the folders while the build runs

  uint64_t start = tarvolin::platform::monotonicNanoseconds();
  std::vector<std::filesystem::path> roots(folders.begin(), folders.end());
  tarvolin::ContentIndex index;
  {
    Progress progress("documents");
    tarvolin::ContentIndexBuilder::ProgressReport report;
    if (progress.enabled()) {
      report = [&progress](const tarvolin::ContentIndexBuilder::Progress& reached) {
        progress.update(reached.documentsExtracted);
      };
    }
    index = tarvolin::ContentIndexBuilder::build(
        roots, nullptr, [] { return false; }, report,
        tarvolin::ContentIndexBuilder::TextBudget::standard,
        tarvolin::ContentIndexBuilder::defaultExtract);
  }
  double seconds = static_cast<double>(tarvolin::platform::monotonicNanoseconds() - start) / 1e9;

  std::error_code ignored;  // a folder that cannot be made shows in the write below
  std::filesystem::create_directories(context.contentPath.parent_path(), ignored);
  std::string path = context.contentPath.string();
  try {
    index.write(context.contentPath);
  } catch (const std::system_error& error) {
    output::errorLine("tvl: could not write the content index to " + path + ": " +
                      error.code().message());
    return 1;
  } catch (const std::exception& error) {
    output::errorLine("tvl: could not write the content index to " + path + ": " + error.what());
    return 1;
  }
  std::error_code unreadable;
  uintmax_t bytes = std::filesystem::file_size(context.contentPath, unreadable);
  if (unreadable) bytes = 0;

  output::format("\n  %d documents, %.1f MB of text, built in %.1fs\n",
                 static_cast<int>(index.documents().size()),
                 static_cast<double>(index.textBytes()) / 1e6, seconds);
  output::format("  written to %s (%.1f MB)\n", path.c_str(), static_cast<double>(bytes) / 1e6);
  return 0;
}

}  // namespace tvl
