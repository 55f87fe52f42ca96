#include "tarvolin/platform/Calendar.h"

#include <cerrno>
#include <ctime>
#include <limits>

namespace tarvolin::platform {

namespace {

// mktime of a local broken-down time with DST decided by the system; nothing when out of range.
std::optional<int64_t> makeLocal(int64_t year, int64_t month0, int64_t day, int hour, int minute,
                                 int second) {
  if (year < std::numeric_limits<int>::min() + 1900 || year > std::numeric_limits<int>::max() - 1) {
    return std::nullopt;
  }
  std::tm parts{};
  parts.tm_year = static_cast<int>(year - 1900);
  parts.tm_mon = static_cast<int>(month0);
  parts.tm_mday = static_cast<int>(day);
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  parts.tm_isdst = -1;
  errno = 0;
  std::time_t result = std::mktime(&parts);
  if (result == static_cast<std::time_t>(-1) && errno != 0) return std::nullopt;
  return static_cast<int64_t>(result);
}

}  // namespace

int64_t nowSeconds() { return static_cast<int64_t>(std::time(nullptr)); }

std::optional<int64_t> daysBefore(int64_t now, int64_t days) {
  std::time_t t = static_cast<std::time_t>(now);
  std::tm parts{};
  if (localtime_r(&t, &parts) == nullptr) return std::nullopt;
  if (days > (int64_t{1} << 40) || days < -(int64_t{1} << 40)) return std::nullopt;
  int64_t day = int64_t{parts.tm_mday} - days;
  if (day < std::numeric_limits<int>::min() || day > std::numeric_limits<int>::max()) {
    return std::nullopt;
  }
  return makeLocal(int64_t{parts.tm_year} + 1900, parts.tm_mon, day, parts.tm_hour, parts.tm_min,
                   parts.tm_sec);
}

std::optional<TimeRange> localDay(int64_t now) {
  std::time_t t = static_cast<std::time_t>(now);
  std::tm parts{};
  if (localtime_r(&t, &parts) == nullptr) return std::nullopt;
  auto start = makeLocal(int64_t{parts.tm_year} + 1900, parts.tm_mon, parts.tm_mday, 0, 0, 0);
  auto end =
      makeLocal(int64_t{parts.tm_year} + 1900, parts.tm_mon, int64_t{parts.tm_mday} + 1, 0, 0, 0);
  if (!start || !end) return std::nullopt;
  return TimeRange{*start, *end};
}

std::optional<TimeRange> localMonth(int64_t year, int64_t month) {
  if (month < 1 || month > 12) return std::nullopt;
  auto start = makeLocal(year, month - 1, 1, 0, 0, 0);
  auto end = makeLocal(year, month, 1, 0, 0, 0);
  if (!start || !end) return std::nullopt;
  return TimeRange{*start, *end};
}

}  // namespace tarvolin::platform
