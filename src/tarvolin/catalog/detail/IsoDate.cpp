#include "tarvolin/catalog/detail/IsoDate.h"

#include <cstdio>

namespace tarvolin::detail {

namespace {

using std::chrono::sys_seconds;

const sys_seconds kEarliest = std::chrono::sys_days{std::chrono::year{0} / 1 / 1};
const sys_seconds kLatest =
    std::chrono::sys_days{std::chrono::year{9999} / 12 / 31} + std::chrono::seconds{86399};

// Reads exactly `digits` decimal digits at `at`, advancing it; false when any is not a digit.
bool readNumber(std::string_view text, size_t& at, size_t digits, int& value) {
  if (at + digits > text.size()) return false;
  value = 0;
  for (size_t i = 0; i < digits; ++i) {
    char c = text[at + i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  at += digits;
  return true;
}

bool expect(std::string_view text, size_t& at, char c) {
  if (at >= text.size() || text[at] != c) return false;
  ++at;
  return true;
}

}  // namespace

std::string formatIsoDate(sys_seconds time) {
  if (time < kEarliest) time = kEarliest;
  if (time > kLatest) time = kLatest;
  auto day = std::chrono::floor<std::chrono::days>(time);
  std::chrono::year_month_day date{day};
  std::chrono::hh_mm_ss clock{time - day};
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02dZ", int(date.year()),
                unsigned(date.month()), unsigned(date.day()), int(clock.hours().count()),
                int(clock.minutes().count()), int(clock.seconds().count()));
  return buffer;
}

std::optional<sys_seconds> parseIsoDate(std::string_view text) {
  size_t at = 0;
  int year, month, day, hour, minute, second;
  if (!readNumber(text, at, 4, year) || !expect(text, at, '-') || !readNumber(text, at, 2, month) ||
      !expect(text, at, '-') || !readNumber(text, at, 2, day) || !expect(text, at, 'T') ||
      !readNumber(text, at, 2, hour) || !expect(text, at, ':') ||
      !readNumber(text, at, 2, minute) || !expect(text, at, ':') ||
      !readNumber(text, at, 2, second)) {
    return std::nullopt;
  }
  std::chrono::year_month_day date{std::chrono::year{year}, std::chrono::month(unsigned(month)),
                                   std::chrono::day(unsigned(day))};
  if (!date.ok() || hour > 23 || minute > 59 || second > 59) return std::nullopt;

  int offsetSeconds = 0;
  if (at < text.size() && text[at] == 'Z') {
    ++at;
  } else if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
    int sign = text[at] == '+' ? 1 : -1;
    ++at;
    int offsetHours, offsetMinutes;
    if (!readNumber(text, at, 2, offsetHours)) return std::nullopt;
    if (at < text.size() && text[at] == ':') ++at;
    if (!readNumber(text, at, 2, offsetMinutes)) return std::nullopt;
    if (offsetHours > 23 || offsetMinutes > 59) return std::nullopt;
    offsetSeconds = sign * (offsetHours * 3600 + offsetMinutes * 60);
  } else {
    return std::nullopt;
  }
  if (at != text.size()) return std::nullopt;
  return sys_seconds{std::chrono::sys_days{date}} + std::chrono::hours{hour} +
         std::chrono::minutes{minute} + std::chrono::seconds{second - offsetSeconds};
}

}  // namespace tarvolin::detail
