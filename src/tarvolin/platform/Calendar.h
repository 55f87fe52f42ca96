#pragma once
// Dates in the user's calendar and time zone (localtime_r / mktime), turned into ranges of
// seconds since 1970 so that per-record tests are two integer comparisons.

#include <cstdint>
#include <optional>

namespace tarvolin::platform {

/// Half-open range of seconds since 1970: [start, end).
struct TimeRange {
  int64_t start;
  int64_t end;
  bool contains(int64_t seconds) const { return seconds >= start && seconds < end; }
};

/// Seconds since 1970 now (wall clock).
int64_t nowSeconds();

/// The moment `days` calendar days before `now` at the same local clock time; nothing when the
/// calendar cannot form that date.
std::optional<int64_t> daysBefore(int64_t now, int64_t days);

/// The local calendar day containing `now`.
std::optional<TimeRange> localDay(int64_t now);

/// The local calendar month `month` (1...12) of `year`; nothing when it cannot be formed.
std::optional<TimeRange> localMonth(int64_t year, int64_t month);

}  // namespace tarvolin::platform
