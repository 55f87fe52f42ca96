// tvl find <text>: searches the content index for documents holding the text and prints the
// first ten, each with the line of its first occurrence, then how many documents hold it.

#include <string_view>

#include "Commands.h"
#include "Output.h"
#include "tarvolin/content/ContentIndex.h"
#include "tarvolin/platform/Clock.h"
#include "tarvolin/platform/Unicode.h"

namespace tvl {

namespace {

constexpr int64_t kSearchLimit = 200;
constexpr size_t kShownHits = 10;
constexpr size_t kPreviewCharacters = 90;

// The first `count` user-perceived characters of `text`.
std::string_view firstCharacters(std::string_view text, size_t count) {
  size_t end = 0;
  for (size_t taken = 0; taken < count && end < text.size(); ++taken) {
    end = tarvolin::platform::graphemeClusterEnd(text, end);
  }
  return text.substr(0, end);
}

std::string_view lastComponent(std::string_view path) {
  size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

}  // namespace

int runFind(const Context& context) {
  std::string text = context.text();
  tarvolin::ContentIndex index;
  try {
    index = tarvolin::ContentIndex::read(context.contentPath);
  } catch (...) {
    output::errorLine("No content index. Run `tvl content` first.");
    throw ExitRequest{1};
  }
  uint64_t start = tarvolin::platform::monotonicNanoseconds();
  tarvolin::ContentIndex::Results results = index.searchAll(text, kSearchLimit);
  double elapsedMs = static_cast<double>(tarvolin::platform::monotonicNanoseconds() - start) / 1e6;

  for (size_t i = 0; i < results.hits.size() && i < kShownHits; ++i) {
    const tarvolin::ContentIndex::Hit& hit = results.hits[i];
    output::line("  " + std::string(lastComponent(hit.path)));
    output::line("      " + std::to_string(hit.line) + ": " +
                 std::string(firstCharacters(hit.preview, kPreviewCharacters)));
  }
  output::format("\n%d%s documents contain %s (%.1fms over %d docs)\n",
                 static_cast<int>(results.hits.size()), results.truncated ? "+" : "", text.c_str(),
                 elapsedMs, static_cast<int>(index.documents().size()));
  return 0;
}

}  // namespace tvl
