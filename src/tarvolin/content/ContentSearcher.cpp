#include "tarvolin/content/ContentSearcher.h"

#include <emmintrin.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <utility>

#include "tarvolin/content/TextExtraction.h"
#include "tarvolin/platform/Concurrency.h"
#include "tarvolin/platform/Regex.h"
#include "tarvolin/platform/SerialQueue.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin::ContentSearcher {

namespace {

// A needle counts as an expression only when it could not just as well be a path written between
// slashes: "/usr/local/" is text, "/usr/local.*/" an expression.
constexpr std::string_view kRegexMetacharacters = "^$*+?[]()|\\{}";

inline uint8_t foldAscii(uint8_t c) {
  return c >= 'A' && c <= 'Z' ? static_cast<uint8_t>(c + 32) : c;
}

inline uint8_t upperAscii(uint8_t c) {
  return c >= 'a' && c <= 'z' ? static_cast<uint8_t>(c - 32) : c;
}

bool equalFolded(const uint8_t* text, const uint8_t* needle, size_t length) {
  for (size_t i = 0; i < length; ++i) {
    if (foldAscii(text[i]) != needle[i]) return false;
  }
  return true;
}

// The regular expression a needle stands for, or nothing when it is literal text.
std::optional<platform::Regex> compiledRegex(std::string_view needle) {
  if (needle.size() < 3 || needle.front() != '/' || needle.back() != '/') return std::nullopt;
  if (platform::graphemeCount(needle) < 3) return std::nullopt;  // "/" + a mark + "/"
  std::string_view pattern = needle.substr(1, needle.size() - 2);
  if (pattern.find('/') != std::string_view::npos &&
      pattern.find_first_of(kRegexMetacharacters) == std::string_view::npos) {
    return std::nullopt;
  }
  return platform::Regex::compile(pattern, {.caseless = true, .multiline = true});
}

// Only regular files are read: opening a named pipe would wait for a writer, and a device could
// be read without end. Symbolic links are followed.
bool isRegularFile(const std::string& path) {
  std::error_code error;
  return std::filesystem::is_regular_file(std::filesystem::path(path), error);
}

// Up to maxBytesPerFile bytes from the start of the file, in a buffer each worker thread keeps
// for the next file. Empty when the file cannot be opened or read.
std::string_view readPrefix(const std::string& path) {
  thread_local std::unique_ptr<char[]> buffer;
  std::FILE* file = std::fopen(path.c_str(), "rbe");
  if (file == nullptr) return {};
  std::setvbuf(file, nullptr, _IONBF, 0);  // read straight into our buffer
  if (!buffer) buffer = std::make_unique_for_overwrite<char[]>(maxBytesPerFile);
  size_t got = std::fread(buffer.get(), 1, maxBytesPerFile, file);
  bool failed = std::ferror(file) != 0;
  std::fclose(file);
  if (failed) return {};
  return {buffer.get(), got};
}

bool isBinary(std::string_view data) {
  return std::memchr(data.data(), 0, std::min(data.size(), binaryProbeBytes)) != nullptr;
}

template <typename Predicate>
std::string_view trim(std::string_view text, Predicate isTrimmed) {
  size_t start = 0;
  while (start < text.size()) {
    size_t next = start;
    if (!isTrimmed(platform::decodeCodePoint(text, next))) break;
    start = next;
  }
  size_t end = text.size();
  while (end > start) {
    size_t lead = end - 1;  // step back to the first byte of the last character
    while (lead > start && end - lead < 4 && (static_cast<uint8_t>(text[lead]) & 0xC0) == 0x80) {
      --lead;
    }
    size_t next = lead;
    char32_t last = platform::decodeCodePoint(text, next);
    if (next != end) last = 0xFFFD;  // an invalid tail decodes as replacement, never trimmed
    if (!isTrimmed(last)) break;
    end = lead;
  }
  return text.substr(start, end - start);
}

// The first maxPreviewCharacters characters of a trimmed line.
std::string preview(std::string_view line, bool trimLineBreaks) {
  std::string text = platform::decodeUtf8Lossy(line);
  std::string_view trimmed = trimLineBreaks ? trim(text, platform::isWhitespaceOrNewline)
                                            : trim(text, platform::isHorizontalWhitespace);
  size_t end = 0;
  for (size_t count = 0; count < maxPreviewCharacters && end < trimmed.size(); ++count) {
    end = platform::graphemeClusterEnd(trimmed, end);
  }
  return std::string(trimmed.substr(0, end));
}

int64_t lineNumberAt(std::string_view text, size_t position) {
  return 1 + std::count(text.begin(), text.begin() + static_cast<ptrdiff_t>(position), '\n');
}

// The hit for a match at `position`: its line runs between the line feeds around it.
Hit literalHit(const std::string& path, std::string_view text, size_t position,
               bool trimLineBreaks) {
  size_t start = text.rfind('\n', position == 0 ? std::string_view::npos : position - 1);
  start = position == 0 || start == std::string_view::npos ? 0 : start + 1;
  size_t end = text.find('\n', position);
  if (end == std::string_view::npos) end = text.size();
  return Hit{path, lineNumberAt(text, position),
             preview(text.substr(start, end - start), trimLineBreaks)};
}

// The literal scan of extracted document text: lower-cased as a whole unless case matters.
std::optional<Hit> scanExtracted(const std::string& text, const std::string& path,
                                 std::string_view pattern, bool caseSensitive) {
  std::string lowered = caseSensitive ? std::string() : platform::lowercase(text);
  std::string_view subject = caseSensitive ? std::string_view(text) : std::string_view(lowered);
  if (pattern.empty() || pattern.size() > subject.size()) return std::nullopt;
  size_t position = subject.find(pattern);
  if (position == std::string_view::npos) return std::nullopt;
  return literalHit(path, subject, position, /*trimLineBreaks=*/true);
}

// The literal scan of one file; `pattern` is already lower-cased unless case matters.
std::optional<Hit> scanOne(const std::string& path, std::string_view pattern, bool caseSensitive) {
  if (!isRegularFile(path)) return std::nullopt;
  if (std::optional<std::string> text = TextExtraction::extractedText(path)) {
    return scanExtracted(*text, path, pattern, caseSensitive);
  }
  std::string_view data = readPrefix(path);
  if (data.empty()) return std::nullopt;
  if (isBinary(data)) return std::nullopt;
  if (pattern.empty() || pattern.size() > data.size()) return std::nullopt;
  size_t position = caseSensitive ? data.find(pattern) : findFolded(data, pattern);
  if (position == std::string_view::npos) return std::nullopt;
  return literalHit(path, data, position, /*trimLineBreaks=*/false);
}

// Length of the line terminator (LF, CR, NEL, LS, PS) starting at text[i], or 0.
size_t terminatorLength(std::string_view text, size_t i) {
  auto byte = [&](size_t k) { return k < text.size() ? static_cast<uint8_t>(text[k]) : 0; };
  uint8_t c = byte(i);
  if (c == '\n' || c == '\r') return 1;
  if (c == 0xC2 && byte(i + 1) == 0x85) return 2;
  if (c == 0xE2 && byte(i + 1) == 0x80 && (byte(i + 2) == 0xA8 || byte(i + 2) == 0xA9)) return 3;
  return 0;
}

// The regular-expression scan of one file: document text, else the file read as plain text.
// The line is the whole line (or lines) around the match, with any of the usual line
// terminators. Its number counts the line feeds before the match, as the literal scans do: a
// CR LF pair counts once and a lone CR not at all.
std::optional<Hit> regexScan(const platform::Regex& regex, const std::string& path) {
  if (!isRegularFile(path)) return std::nullopt;
  std::optional<std::string> text = TextExtraction::extractedText(path);
  std::string_view subject;
  if (text) {
    subject = *text;
  } else {
    // Plain text, read as the raw scan reads it. Well-formed bytes are searched where they lie
    // (decoding would not change them); others are decoded with replacement first.
    subject = readPrefix(path);
    if (subject.empty() || isBinary(subject)) return std::nullopt;
    if (!platform::isValidUtf8(subject)) {
      text = platform::decodeUtf8Lossy(subject);
      subject = *text;
    }
  }
  std::optional<std::pair<size_t, size_t>> match = regex.find(subject);
  if (!match) return std::nullopt;
  auto [matchStart, matchEnd] = *match;
  size_t start = matchStart;
  while (start > 0) {
    size_t back = start - 1;  // a terminator ends at start - 1
    uint8_t c = static_cast<uint8_t>(subject[back]);
    if (c == '\n' || c == '\r') break;
    if ((c == 0x85 && back >= 1 && terminatorLength(subject, back - 1) == 2) ||
        ((c == 0xA8 || c == 0xA9) && back >= 2 && terminatorLength(subject, back - 2) == 3)) {
      break;
    }
    --start;
  }
  size_t end = matchEnd > matchStart ? matchEnd - 1 : matchStart;
  while (end < subject.size() && terminatorLength(subject, end) == 0) ++end;
  return Hit{path, lineNumberAt(subject, matchStart),
             preview(subject.substr(start, end - start), /*trimLineBreaks=*/true)};
}

// A needle ready to scan with: an expression, or the literal bytes.
struct PreparedNeedle {
  std::optional<platform::Regex> regex;
  std::string pattern;

  std::optional<Hit> scan(const std::string& path, bool caseSensitive) const {
    return regex ? regexScan(*regex, path) : scanOne(path, pattern, caseSensitive);
  }
};

PreparedNeedle prepare(std::string_view needle, bool caseSensitive) {
  PreparedNeedle prepared{compiledRegex(needle), {}};
  if (!prepared.regex) {
    prepared.pattern = caseSensitive ? std::string(needle) : platform::lowercase(needle);
  }
  return prepared;
}

}  // namespace

size_t findFolded(std::string_view haystack, std::string_view loweredNeedle) {
  const size_t n = loweredNeedle.size();
  if (n == 0 || n > haystack.size()) return n == 0 ? 0 : std::string_view::npos;
  const auto* text = reinterpret_cast<const uint8_t*>(haystack.data());
  const auto* needle = reinterpret_cast<const uint8_t*>(loweredNeedle.data());
  const size_t lastStart = haystack.size() - n;
  const uint8_t first = needle[0];
  const uint8_t last = needle[n - 1];
  const __m128i firstLower = _mm_set1_epi8(static_cast<char>(first));
  const __m128i firstUpper = _mm_set1_epi8(static_cast<char>(upperAscii(first)));
  const __m128i lastLower = _mm_set1_epi8(static_cast<char>(last));
  const __m128i lastUpper = _mm_set1_epi8(static_cast<char>(upperAscii(last)));
  size_t i = 0;
  // Sixteen starts at a time: both loads stay inside the haystack while i + 16 <= lastStart + 1.
  for (; i + 16 <= lastStart + 1; i += 16) {
    __m128i head = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i));
    __m128i tail = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text + i + n - 1));
    __m128i headHits =
        _mm_or_si128(_mm_cmpeq_epi8(head, firstLower), _mm_cmpeq_epi8(head, firstUpper));
    __m128i tailHits =
        _mm_or_si128(_mm_cmpeq_epi8(tail, lastLower), _mm_cmpeq_epi8(tail, lastUpper));
    auto mask = static_cast<uint32_t>(_mm_movemask_epi8(_mm_and_si128(headHits, tailHits)));
    while (mask != 0) {
      size_t at = i + static_cast<size_t>(__builtin_ctz(mask));
      if (equalFolded(text + at, needle, n)) return at;
      mask &= mask - 1;
    }
  }
  for (; i <= lastStart; ++i) {
    if (foldAscii(text[i]) == first && equalFolded(text + i, needle, n)) return i;
  }
  return std::string_view::npos;
}

Outcome search(std::string_view needle, const std::vector<std::string>& paths, bool caseSensitive,
               int64_t limit) {
  if (needle.empty()) return std::vector<Hit>{};
  if (static_cast<int64_t>(paths.size()) > limit) {
    return TooManyCandidates{static_cast<int64_t>(paths.size())};
  }
  const PreparedNeedle prepared = prepare(needle, caseSensitive);
  // One slot per candidate: no lock, and equal paths keep their candidate order.
  std::vector<std::optional<Hit>> found(paths.size());
  platform::concurrentPerform(paths.size(),
                              [&](size_t i) { found[i] = prepared.scan(paths[i], caseSensitive); });
  std::vector<Hit> hits;
  for (std::optional<Hit>& hit : found) {
    if (hit) hits.push_back(std::move(*hit));
  }
  std::stable_sort(hits.begin(), hits.end(),
                   [](const Hit& a, const Hit& b) { return a.path < b.path; });
  return hits;
}

void deepSearch(std::string needle, std::vector<std::string> paths,
                std::function<bool()> isCancelled, std::function<void(const Hit&)> onHit,
                FinishedCallback onFinished) {
  if (needle.empty()) {
    onFinished(0, false);
    return;
  }
  auto prepared = std::make_shared<const PreparedNeedle>(prepare(needle, false));
  platform::SerialQueue::background().submit(
      [prepared, paths = std::move(paths), isCancelled = std::move(isCancelled),
       onHit = std::move(onHit), onFinished = std::move(onFinished)] {
        std::atomic<int64_t> begun{0};
        std::exception_ptr failure;
        try {
          platform::concurrentPerform(paths.size(), [&](size_t i) {
            if (isCancelled()) return;
            begun.fetch_add(1, std::memory_order_relaxed);
            std::optional<Hit> hit = prepared->scan(paths[i], false);
            if (hit && !isCancelled()) onHit(*hit);
          });
        } catch (...) {
          // A throwing callback ends the search early; the completion is still reported once.
          failure = std::current_exception();
        }
        onFinished(begun.load(), isCancelled());
        if (failure) std::rethrow_exception(failure);
      });
}

}  // namespace tarvolin::ContentSearcher
