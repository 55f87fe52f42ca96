#include "tarvolin/content/ContentIndexBuilder.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <optional>
#include <unordered_map>

#include "tarvolin/content/TextExtraction.h"
#include "tarvolin/platform/Concurrency.h"
#include "tarvolin/platform/Unicode.h"

namespace tarvolin::ContentIndexBuilder {

static_assert([] {
  for (size_t i = 0; i < TextExtraction::extractedExtensions.size(); ++i) {
    if (extensions[i] != TextExtraction::extractedExtensions[i]) return false;
  }
  for (size_t i = 0; i < plainTextExtensions.size(); ++i) {
    if (extensions[TextExtraction::extractedExtensions.size() + i] != plainTextExtensions[i]) {
      return false;
    }
  }
  return extensions.size() ==
         TextExtraction::extractedExtensions.size() + plainTextExtensions.size();
}());
static_assert(plainTextAdmissionBytes == TextExtraction::maxBytesPerFile);

namespace {

constexpr int64_t kProgressEvery = 25;

template <size_t N>
bool isListed(const std::array<std::string_view, N>& list, std::string_view value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

std::string_view lastComponent(std::string_view path) {
  size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool isPlainText(std::string_view path) {
  return isListed(plainTextExtensions, lowercasedExtension(path));
}

// What the file system says about a file, following links.
struct FileFacts {
  int64_t size;
  double modified;  // seconds since 1970
};

std::optional<FileFacts> factsOf(const std::string& path) {
  std::error_code error;
  std::filesystem::file_status status = std::filesystem::status(path, error);
  if (error || !std::filesystem::is_regular_file(status)) return std::nullopt;
  uintmax_t size = std::filesystem::file_size(path, error);
  if (error) return std::nullopt;
  std::filesystem::file_time_type time = std::filesystem::last_write_time(path, error);
  if (error) return std::nullopt;
  auto sinceEpoch = std::chrono::duration_cast<std::chrono::nanoseconds>(
                        std::chrono::file_clock::to_sys(time).time_since_epoch())
                        .count();
  // Whole seconds plus the nanoseconds as a fraction, floored, so a time before 1970 keeps a
  // non-negative fraction like the file system's own.
  int64_t seconds = sinceEpoch / 1'000'000'000;
  int64_t nanoseconds = sinceEpoch % 1'000'000'000;
  if (nanoseconds < 0) {
    seconds -= 1;
    nanoseconds += 1'000'000'000;
  }
  return FileFacts{static_cast<int64_t>(std::min<uintmax_t>(size, INT64_MAX)),
                   static_cast<double>(seconds) + static_cast<double>(nanoseconds) / 1e9};
}

// One extracted (or reused) document, gathered by the workers.
struct Entry {
  size_t index;  // position of its path in the admitted paths
  std::string path;
  double modified;
  std::string bytes;  // lower-cased UTF-8 text
};

struct ReusedText {
  double modified;
  size_t offset;
  size_t length;
};

}  // namespace

std::string lowercasedExtension(std::string_view path) {
  std::string_view name = lastComponent(path);
  size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return {};
  return platform::lowercase(name.substr(dot + 1));
}

std::vector<std::string> files(const std::filesystem::path& folder,
                               const CancellationTest& isCancelled) {
  std::vector<std::string> found;
  // Depth first, each folder's entries in byte order of their names, a folder's contents right
  // after the folder itself. The stack holds the folders still to be finished, each with its
  // sorted entries and the next one to visit.
  struct Level {
    std::vector<std::filesystem::directory_entry> entries;
    size_t next = 0;
  };
  std::vector<Level> stack;
  auto enter = [&](const std::filesystem::path& path) {
    std::error_code error;
    std::filesystem::directory_iterator it(path, error);
    if (error) return;
    Level level;
    for (std::filesystem::directory_iterator end; it != end; it.increment(error)) {
      std::string_view name = lastComponent(it->path().native());
      if (!name.empty() && name[0] != '.') level.entries.push_back(*it);
    }
    std::sort(level.entries.begin(), level.entries.end(),
              [](const auto& a, const auto& b) { return a.path().native() < b.path().native(); });
    stack.push_back(std::move(level));
  };
  enter(folder);
  while (!stack.empty()) {
    Level& level = stack.back();
    if (level.next == level.entries.size()) {
      stack.pop_back();
      continue;
    }
    const std::filesystem::directory_entry entry = std::move(level.entries[level.next++]);
    if (isCancelled && isCancelled()) return found;
    std::string_view name = lastComponent(entry.path().native());
    if (isListed(skipDirectories, name)) continue;
    if (isListed(extensions, lowercasedExtension(name))) found.push_back(entry.path().native());
    std::error_code error;
    // The entry's type comes from the listing; a link is never followed into a folder.
    if (!entry.is_symlink(error) && entry.is_directory(error)) enter(entry.path());
  }
  return found;
}

std::unordered_set<std::string> keptWithinBudget(std::vector<BudgetCandidate> candidates,
                                                 const TextBudget& budget) {
  std::stable_sort(candidates.begin(), candidates.end(),
                   [](const BudgetCandidate& a, const BudgetCandidate& b) {
                     if (a.modified != b.modified) return a.modified > b.modified;
                     return a.path < b.path;
                   });
  std::unordered_set<std::string> kept;
  int64_t total = 0;
  for (BudgetCandidate& candidate : candidates) {
    if (static_cast<int64_t>(kept.size()) >= budget.files) break;
    // A total that leaves the 64-bit range has overflowed any budget.
    if (__builtin_add_overflow(total, candidate.bytes, &total) || total > budget.bytes) break;
    kept.insert(std::move(candidate.path));
  }
  return kept;
}

Admission withinTextBudget(const std::vector<std::string>& paths, const ContentIndex& competing,
                           const TextBudget& budget) {
  struct Competitor {
    double modified;
    int64_t bytes;
  };
  std::unordered_map<std::string, Competitor> entries;
  for (const ContentIndex::Document& document : competing.documents()) {
    if (isPlainText(document.path)) {
      entries[document.path] = Competitor{document.modified, document.length};
    }
  }
  std::unordered_set<std::string> fresh;
  for (const std::string& path : paths) {
    if (!isPlainText(path)) continue;
    std::optional<FileFacts> facts = factsOf(path);
    if (!facts || facts->size < 1) continue;
    entries[path] =
        Competitor{facts->modified, std::min<int64_t>(facts->size, plainTextAdmissionBytes)};
    fresh.insert(path);
  }
  std::vector<BudgetCandidate> candidates;
  candidates.reserve(entries.size());
  for (const auto& [path, competitor] : entries) {
    candidates.push_back(BudgetCandidate{path, competitor.modified, competitor.bytes});
  }
  std::unordered_set<std::string> kept = keptWithinBudget(std::move(candidates), budget);

  Admission admission;
  for (const std::string& path : paths) {
    if (fresh.contains(path) && !kept.contains(path)) continue;
    admission.paths.push_back(path);
  }
  for (const ContentIndex::Document& document : competing.documents()) {
    if (isPlainText(document.path) && !kept.contains(document.path)) {
      admission.displaced.insert(document.path);
    }
  }
  return admission;
}

bool enforceTextBudget(ContentIndex& index, const TextBudget& budget) {
  std::vector<BudgetCandidate> candidates;
  for (const ContentIndex::Document& document : index.documents()) {
    if (isPlainText(document.path)) {
      candidates.push_back(BudgetCandidate{document.path, document.modified, document.length});
    }
  }
  std::unordered_set<std::string> kept = keptWithinBudget(std::move(candidates), budget);
  std::unordered_set<std::string> evicted;
  for (const ContentIndex::Document& document : index.documents()) {
    if (isPlainText(document.path) && !kept.contains(document.path)) {
      evicted.insert(document.path);
    }
  }
  if (evicted.empty()) return false;
  return index.remove(evicted) > 0;
}

ContentIndex build(const std::vector<std::filesystem::path>& folders, const ContentIndex* reusing,
                   const CancellationTest& isCancelled, const ProgressReport& onProgress,
                   const TextBudget& textBudget, const Extractor& extract) {
  auto cancelled = [&] { return isCancelled && isCancelled(); };

  std::vector<std::string> candidates;
  for (const std::filesystem::path& folder : folders) {
    if (cancelled()) break;
    std::vector<std::string> below = files(folder, isCancelled);
    candidates.insert(candidates.end(), std::make_move_iterator(below.begin()),
                      std::make_move_iterator(below.end()));
  }
  const std::vector<std::string> admitted =
      withinTextBudget(candidates, ContentIndex(), textBudget).paths;

  // Only ranges that lie wholly inside the previous blob may lend their text.
  std::unordered_map<std::string, ReusedText> reuse;
  std::span<const uint8_t> previousBlob;
  if (reusing != nullptr) {
    previousBlob = reusing->blob();
    for (const ContentIndex::Document& document : reusing->documents()) {
      if (document.offset < 0 || document.length < 0 ||
          static_cast<uint64_t>(document.offset) > previousBlob.size() ||
          static_cast<uint64_t>(document.length) >
              previousBlob.size() - static_cast<uint64_t>(document.offset)) {
        continue;
      }
      reuse[document.path] = ReusedText{document.modified, static_cast<size_t>(document.offset),
                                        static_cast<size_t>(document.length)};
    }
  }

  // The lock guards the counter and the entries, and is never held across a file read, an
  // extraction or a callback.
  std::mutex lock;
  int64_t filesScanned = 0;
  std::vector<Entry> entries;
  entries.reserve(admitted.size());
  platform::concurrentPerform(admitted.size(), [&](size_t i) {
    if (cancelled()) return;
    const std::string& path = admitted[i];
    {
      std::lock_guard<std::mutex> guard(lock);
      ++filesScanned;
    }
    std::optional<FileFacts> facts = factsOf(path);
    if (!facts || facts->size < 1 || facts->size > maxFileBytes) return;
    if (auto found = reuse.find(path);
        found != reuse.end() &&
        facts->modified <= found->second.modified + ContentIndex::mtimeTolerance) {
      const ReusedText& old = found->second;
      std::string bytes(reinterpret_cast<const char*>(previousBlob.data()) + old.offset,
                        old.length);
      std::lock_guard<std::mutex> guard(lock);
      entries.push_back(Entry{i, path, old.modified, std::move(bytes)});
      return;
    }
    std::optional<std::string> text = extract(path);
    if (!text || text->empty()) return;
    std::string bytes = platform::lowercase(*text);
    text.reset();
    // Both counts as they stand now: every gathered document has begun, so a report never
    // shows fewer files begun than documents gathered, whichever thread finishes first.
    int64_t gathered, scanned;
    {
      std::lock_guard<std::mutex> guard(lock);
      entries.push_back(Entry{i, path, facts->modified, std::move(bytes)});
      gathered = static_cast<int64_t>(entries.size());
      scanned = filesScanned;
    }
    if (onProgress && gathered % kProgressEvery == 0) {
      onProgress(Progress{scanned, gathered, 0});
    }
  });

  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return a.index < b.index; });

  // The second budget pass weighs the real texts, which lower-casing may have grown.
  std::vector<BudgetCandidate> plain;
  for (const Entry& entry : entries) {
    if (isPlainText(entry.path)) {
      plain.push_back(
          BudgetCandidate{entry.path, entry.modified, static_cast<int64_t>(entry.bytes.size())});
    }
  }
  const std::unordered_set<std::string> kept = keptWithinBudget(std::move(plain), textBudget);
  std::erase_if(entries, [&](const Entry& entry) {
    return isPlainText(entry.path) && !kept.contains(entry.path);
  });

  size_t totalBytes = 0;
  for (const Entry& entry : entries) totalBytes += entry.bytes.size();
  std::vector<ContentIndex::Document> documents;
  documents.reserve(entries.size());
  std::vector<uint8_t> blob;
  blob.reserve(totalBytes);
  for (Entry& entry : entries) {
    documents.push_back(ContentIndex::Document{std::move(entry.path), entry.modified,
                                               static_cast<int64_t>(blob.size()),
                                               static_cast<int64_t>(entry.bytes.size())});
    blob.insert(blob.end(), entry.bytes.begin(), entry.bytes.end());
    std::string().swap(entry.bytes);
  }
  if (onProgress) {
    onProgress(Progress{filesScanned, static_cast<int64_t>(documents.size()),
                        static_cast<int64_t>(blob.size())});
  }
  return ContentIndex(std::move(documents), std::move(blob));
}

}  // namespace tarvolin::ContentIndexBuilder
