#pragma once
// Builds a whole ContentIndex from folders: finds the document files below them, decides which
// plain-text files fit into a text budget (from their sizes alone, before any is read), extracts
// the text of every admitted file in parallel (taking over the text of files unchanged since a
// previous index), and assembles documents and blob in the order the files were listed, whatever
// the thread timing.
//
// A namespace of functions without state. `build` may be called from any thread; its callbacks
// (`isCancelled`, `onProgress`, `extract`) are called from the worker threads, several at once.
// Nothing is reported for files that cannot be read: they are left out.

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "tarvolin/content/ContentIndex.h"

namespace tarvolin::ContentIndexBuilder {

/// Extensions (lower case) read as plain text; only these count against the text budget.
inline constexpr std::array<std::string_view, 3> plainTextExtensions = {"txt", "md", "csv"};
/// Every extension that is indexed: the extracted ones and the plain-text ones.
inline constexpr std::array<std::string_view, 10> extensions = {
    "pdf", "docx", "pptx", "xlsx", "pages", "key", "numbers", "txt", "md", "csv"};
/// Folder (or file) names whose subtree is never entered; compared exactly, case included.
inline constexpr std::array<std::string_view, 12> skipDirectories = {
    "node_modules", ".git",          "DerivedData", "build",  "dist", ".next",
    "vendor",       "site-packages", ".venv",       "target", "Pods", ".build"};
/// Files larger than this (64 MiB) are not indexed.
inline constexpr int64_t maxFileBytes = 67'108'864;
/// The most bytes a plain-text file counts in admission: no more is ever read from one.
inline constexpr int64_t plainTextAdmissionBytes = 2'097'152;

/// How much plain text an index may hold.
struct TextBudget {
  /// The most plain-text documents to keep.
  int64_t files = 0;
  /// The most text bytes those documents may hold together.
  int64_t bytes = 0;

  /// 10,000 files, 50 MiB: what the command line builds with.
  static const TextBudget standard;

  friend bool operator==(const TextBudget&, const TextBudget&) = default;
};
inline constexpr TextBudget TextBudget::standard{10'000, 52'428'800};

struct Progress {
  /// Admitted files whose processing has begun.
  int64_t filesScanned = 0;
  /// Documents gathered so far, reused ones included.
  int64_t documentsExtracted = 0;
  /// The blob's size; 0 in the reports made while extraction runs.
  int64_t textBytes = 0;

  friend bool operator==(const Progress&, const Progress&) = default;
};

/// The outcome of admission against a text budget.
struct Admission {
  /// The candidate paths allowed into the build, in the order given.
  std::vector<std::string> paths;
  /// Plain-text documents of the competing index that lost their place in the budget.
  std::unordered_set<std::string> displaced;

  friend bool operator==(const Admission&, const Admission&) = default;
};

/// A plain-text document competing for the budget.
struct BudgetCandidate {
  std::string path;
  /// Seconds since 1970.
  double modified = 0;
  int64_t bytes = 0;

  friend bool operator==(const BudgetCandidate&, const BudgetCandidate&) = default;
};

using CancellationTest = std::function<bool()>;
using ProgressReport = std::function<void(const Progress&)>;
using Extractor = std::function<std::optional<std::string>(const std::string& path)>;

/// The text of one document: plain-text extensions are read as text (at most 2 MiB), the others
/// extracted. Nothing when the file cannot be read.
std::optional<std::string> defaultExtract(const std::string& path);

/// The candidate files below `folder`, in the order they are listed: every file (or folder) whose
/// lower-cased extension is in `extensions`, listed depth first with each folder's entries in
/// byte order of their names. Hidden items (names starting with ".") and the `skipDirectories`
/// are neither listed nor entered; links to folders are not followed. A folder that cannot be
/// read contributes nothing. Stops at once, returning what it found, when `isCancelled` says so.
std::vector<std::string> files(const std::filesystem::path& folder,
                               const CancellationTest& isCancelled = {});

/// The paths kept by a budget: newest first (ties by path), until the file count is reached or
/// the first candidate whose bytes overflow the total; smaller, older ones behind it are not
/// tried.
std::unordered_set<std::string> keptWithinBudget(std::vector<BudgetCandidate> candidates,
                                                 const TextBudget& budget);

/// Decides which candidate paths may enter a build: plain-text candidates (sizes and times from
/// the file system, following links) compete for `budget` with the plain-text documents of
/// `competing`. Other paths, and plain-text paths that cannot be read or are empty, pass.
Admission withinTextBudget(const std::vector<std::string>& paths, const ContentIndex& competing,
                           const TextBudget& budget);

/// Evicts the plain-text documents of `index` that do not fit `budget` (their bytes become dead);
/// true when any were removed.
bool enforceTextBudget(ContentIndex& index, const TextBudget& budget);

/// Builds the index of the documents below `folders`. `reusing`, when given, lends the text of
/// documents whose file has not changed since (within ContentIndex::mtimeTolerance). Never
/// throws for a file or folder: what cannot be read is left out. Cancellation ends the gathering
/// and skips the extractions not yet begun; the index of what was gathered is still returned.
/// `onProgress` hears every 25th new document while extraction runs (with textBytes 0) and once
/// at the end.
ContentIndex build(const std::vector<std::filesystem::path>& folders,
                   const ContentIndex* reusing = nullptr, const CancellationTest& isCancelled = {},
                   const ProgressReport& onProgress = {},
                   const TextBudget& textBudget = TextBudget::standard,
                   const Extractor& extract = defaultExtract);

/// The path's extension, lower-cased: the text after the last "." of the last component, empty
/// when there is none.
std::string lowercasedExtension(std::string_view path);

}  // namespace tarvolin::ContentIndexBuilder
