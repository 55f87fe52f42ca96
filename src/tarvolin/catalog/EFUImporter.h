#pragma once
// Turns an EFU file list into an index builder with folder sizes and statistics. An EFU list is
// CSV text: a header row naming the columns ("Filename", optionally "Size", "Date Modified",
// "Attributes"), then one row per file or folder, listed by its full backslash-separated path in
// drive-letter ("C:\a\b.txt") or UNC ("\\server\share\b.txt") form. The drive or share of each
// path becomes a top record; folders are made once per path, whatever the case of their names.
//
// Lists come from anywhere, so any bytes are accepted: invalid UTF-8 is replaced, unreadable
// numbers and dates become 0, unusable paths skip their row, and only a missing filename column or
// a row that cannot be read at all stops the import. Memory stays proportional to the input.
//
// Stateless functions; each call keeps its own state, so any thread may call them.

#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tarvolin/catalog/CatalogStats.h"
#include "tarvolin/index/IndexBuilder.h"

namespace tarvolin::EFUImporter {

/// Why a list cannot be imported. Carries no message text.
class EFUError : public std::exception {
 public:
  enum class Kind { malformedRow, missingFilenameColumn };

  /// A data row too short to hold the filename field (its first line), or a quoted section that
  /// is never closed (the line where it opened).
  static EFUError malformedRow(int64_t line) { return EFUError(Kind::malformedRow, line); }
  /// The header has no "filename" column, or the list has no row at all.
  static EFUError missingFilenameColumn() { return EFUError(Kind::missingFilenameColumn, 0); }

  Kind kind() const { return kind_; }
  /// malformedRow only: the line number, counted from 1.
  int64_t line() const { return line_; }

  const char* what() const noexcept override;

  friend bool operator==(const EFUError& a, const EFUError& b) {
    return a.kind_ == b.kind_ && a.line_ == b.line_;
  }

 private:
  EFUError(Kind kind, int64_t line) : kind_(kind), line_(line) {}

  Kind kind_;
  int64_t line_;
};

/// The imported tree, rolled up (folders hold the total size below them), and its counts.
struct Result {
  IndexBuilder builder;
  CatalogStats stats;
};

/// The most bytes kept of one field (1 MiB): far beyond any path, name, number or date.
inline constexpr size_t maxFieldBytes = size_t{1} << 20;
/// The most fields kept of one row: a list has a handful of columns.
inline constexpr size_t maxRowFields = 256;

/// Called once per row that is not blank, with the line the row starts on (from 1) and its fields
/// decoded as UTF-8. The fields are only valid during the call.
using RowHandler = std::function<void(int64_t line, std::span<const std::string> fields)>;

/// Imports a whole list: header, rows, folder sizes, statistics. Every listed row's record is
/// attrsFilled; folders made only for the paths below them get theirs from the roll-up; files
/// listed twice give two records. Throws EFUError.
/// `onProgress` (may be empty) hears the number of rows read so far, every 65,536 rows.
Result build(std::string_view data, const std::function<void(int64_t)>& onProgress = {});
Result build(std::span<const uint8_t> data, const std::function<void(int64_t)>& onProgress = {});

/// The CSV reader: one pass over `bytes` (a leading byte-order mark skipped), fields split on ","
/// and rows on "\n" (a "\r" before it dropped), double quotes opening a section anywhere in a
/// field in which "," and line breaks are data and "" is one quote. Blank lines are skipped.
/// A field keeps its first maxFieldBytes bytes and a row its first maxRowFields fields; the rest
/// are read past, so one huge field or row costs time in proportion but no memory.
/// Throws EFUError::malformedRow for a quoted section still open at the end, and whatever
/// `onRow` throws.
void parseCSV(std::string_view bytes, const RowHandler& onRow);

/// The names of a listed path: "C:\Users\me\a.txt" gives "C:", "Users", "me", "a.txt";
/// "\\server\share\x" gives "//server/share", "x". Empty pieces are dropped. Empty (the path is
/// rejected) when nothing is left, a UNC path lacks its share, or a name is "." or ".." or holds
/// "/" (so paths written with forward slashes are rejected).
std::vector<std::string> components(std::string_view path);

/// An attribute number: decimal (optional "+") or "0x" and hexadecimal, fitting in 32 bits,
/// blanks around it allowed. Nothing for anything else.
std::optional<uint32_t> integer(std::string_view text);

/// A modification date in whole seconds since 1970 UTC: either a file time (a decimal count of
/// 100-nanosecond intervals since 1601) or a date-time like "2024-05-17T08:30:00Z" or
/// "2024-05-17T08:30:00.25+02:00". Nothing for dates at or before 1970 and for any other text;
/// later dates past 2^32 - 1 seconds are capped there.
std::optional<uint32_t> unixTime(std::string_view text);

}  // namespace tarvolin::EFUImporter
