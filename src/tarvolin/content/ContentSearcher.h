#pragma once
// Searches the contents of a given list of files directly, without the content index. The caller
// first narrows the files by name, then hands the candidate paths here; each candidate is read
// (or, for PDF and office documents, extracted) and scanned for the first occurrence of a needle:
// a literal text, or a regular expression when the needle is written between slashes ("/fo+/").
//
// `search` refuses candidate lists longer than its limit and returns every hit sorted by path;
// `deepSearch` has no limit, runs on the background serial queue, reports each hit as it is found
// and can be cancelled. Both scan the candidates in parallel, one iteration per file.
//
// Literal needles: a raw text file is compared byte for byte with only ASCII letters folded (so
// "É" in a file is not found by "é"); extracted document text is compared after full Unicode
// lower-casing. Regular expressions always ignore case, and "^" and "$" match at line breaks.
// Files that cannot be read, vanish or change while read, hold a zero byte in their first 4,096
// bytes, or are not regular files (folders, pipes, devices) give no hit and no error.
//
// Everything here may be called from any thread; nothing is shared between calls.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace tarvolin::ContentSearcher {

/// The candidate limit the command-line search passes to `search`.
inline constexpr int64_t maxCandidates = 5000;
/// The most bytes read from a file that is scanned raw.
inline constexpr size_t maxBytesPerFile = 2'097'152;
/// A zero byte among this many first bytes marks a file as binary data.
inline constexpr size_t binaryProbeBytes = 4096;
/// Previews are cut to this many characters (grapheme clusters).
inline constexpr size_t maxPreviewCharacters = 200;

/// The first match in one file.
struct Hit {
  std::string path;
  int64_t line = 0;     // 1-based: one more than the line feeds before the match
  std::string preview;  // the matched line, trimmed, at most 200 characters

  friend bool operator==(const Hit&, const Hit&) = default;
};

/// The refusal of a candidate list longer than the limit: the number of candidates given.
struct TooManyCandidates {
  int64_t count = 0;

  friend bool operator==(const TooManyCandidates&, const TooManyCandidates&) = default;
};

/// Hits sorted by path (at most one per candidate), or the refusal.
using Outcome = std::variant<std::vector<Hit>, TooManyCandidates>;

/// Scans every candidate for `needle` and returns the hits sorted by path (byte order, which for
/// UTF-8 is the order of Unicode scalar values; equal paths keep their candidate order). An
/// empty needle gives no hits; more than `limit` candidates give `TooManyCandidates` and nothing
/// is read. `caseSensitive` applies to literal needles only. Blocks until every candidate is
/// scanned.
Outcome search(std::string_view needle, const std::vector<std::string>& paths, bool caseSensitive,
               int64_t limit = maxCandidates);

/// Called with the number of candidates whose scan began, and whether the search was cancelled.
using FinishedCallback = std::function<void(int64_t begun, bool cancelled)>;

/// Searches every candidate, ignoring case, on the background serial queue, and returns at once.
/// Each candidate first asks `isCancelled`; once it answers true no further scan begins and no
/// further hit is reported. `onHit` gets each hit as it is found (completion order, from several
/// threads at once); `onFinished` is called exactly once, after every scan has ended. An empty
/// needle calls `onFinished(0, false)` on the caller's thread before returning. The callbacks must
/// be safe to call from any thread.
void deepSearch(std::string needle, std::vector<std::string> paths,
                std::function<bool()> isCancelled, std::function<void(const Hit&)> onHit,
                FinishedCallback onFinished);

/// The position of the first occurrence of `loweredNeedle` in `haystack` when the haystack's
/// ASCII capitals are compared as lower case (every other byte as itself), or npos. The scan
/// tests the first and last byte of the needle 16 positions at a time before comparing the rest.
/// REQUIRES: loweredNeedle is not empty.
size_t findFolded(std::string_view haystack, std::string_view loweredNeedle);

}  // namespace tarvolin::ContentSearcher
