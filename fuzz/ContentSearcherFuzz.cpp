// The direct content search over a file of untrusted bytes. The input is:
//   byte 0: bit 0 case-sensitive, bit 1 the needle is wrapped in slashes (an expression when it
//           compiles); byte 1: the needle's length (mod 64); then the needle, then the file.
// The file is written as a plain-text file and searched. Checks: the search never crashes, a hit
// has a line of at least 1 and a well-formed preview of at most 200 characters, and a literal
// needle is found exactly when a plain byte-by-byte reading of the file finds it; the folded scan
// also agrees with that reading on the raw bytes directly.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <string_view>
#include <variant>

#include "tarvolin/content/ContentSearcher.h"
#include "tarvolin/platform/Unicode.h"

using namespace tarvolin;

namespace {

char fold(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

size_t plainFind(std::string_view text, std::string_view needle, bool caseSensitive) {
  for (size_t i = 0; i + needle.size() <= text.size(); ++i) {
    size_t k = 0;
    while (k < needle.size() && (caseSensitive ? text[i + k] : fold(text[i + k])) == needle[k]) {
      ++k;
    }
    if (k == needle.size()) return i;
  }
  return std::string_view::npos;
}

const std::string& scratchPath() {
  static const std::string path = [] {
    std::random_device device;
    return (std::filesystem::temp_directory_path() /
            ("tarvolin-fuzz-content-" + std::to_string(device()) + ".txt"))
        .string();
  }();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const bool caseSensitive = (data[0] & 1) != 0;
  const bool wrapped = (data[0] & 2) != 0;
  size_t needleLength = std::min<size_t>(data[1] % 64, size - 2);
  std::string needle(reinterpret_cast<const char*>(data + 2), needleLength);
  std::string_view file(reinterpret_cast<const char*>(data + 2 + needleLength),
                        size - 2 - needleLength);
  if (wrapped) needle = "/" + needle + "/";

  if (!needle.empty() && !wrapped) {
    std::string lowered = caseSensitive ? needle : platform::lowercase(needle);
    if (ContentSearcher::findFolded(file, lowered) != plainFind(file, lowered, false)) std::abort();
  }

  { std::ofstream(scratchPath(), std::ios::binary | std::ios::trunc) << file; }
  ContentSearcher::Outcome outcome =
      ContentSearcher::search(needle, {scratchPath()}, caseSensitive);
  const auto& hits = std::get<std::vector<ContentSearcher::Hit>>(outcome);
  if (hits.size() > 1) std::abort();
  for (const ContentSearcher::Hit& hit : hits) {
    if (hit.line < 1 || !platform::isValidUtf8(hit.preview)) std::abort();
    if (platform::graphemeCount(hit.preview) > ContentSearcher::maxPreviewCharacters) std::abort();
  }
  // A needle left literal (not wrapped, and valid UTF-8 so lower-casing keeps its bytes' meaning)
  // is found exactly when the plain reading finds it in a text file.
  if (!wrapped && !needle.empty() && platform::isValidUtf8(needle)) {
    std::string lowered = caseSensitive ? needle : platform::lowercase(needle);
    bool binary =
        file.substr(0, ContentSearcher::binaryProbeBytes).find('\0') != std::string_view::npos;
    bool expected = !binary && plainFind(file.substr(0, ContentSearcher::maxBytesPerFile), lowered,
                                         caseSensitive) != std::string_view::npos;
    if (expected != !hits.empty()) std::abort();
  }
  return 0;
}
