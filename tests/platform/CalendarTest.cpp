#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "tarvolin/platform/Calendar.h"

namespace tarvolin::platform {
namespace {

// Sets the process's time zone for one test and restores it. A POSIX rule string needs no
// zone files: New York's rule since 2007 (clocks forward on the second Sunday of March, back on
// the first Sunday of November).
class TimeZone {
 public:
  explicit TimeZone(const char* rule) {
    const char* previous = std::getenv("TZ");
    hadPrevious_ = previous != nullptr;
    if (hadPrevious_) previous_ = previous;
    ::setenv("TZ", rule, 1);
    ::tzset();
  }
  ~TimeZone() {
    if (hadPrevious_) {
      ::setenv("TZ", previous_.c_str(), 1);
    } else {
      ::unsetenv("TZ");
    }
    ::tzset();
  }

 private:
  bool hadPrevious_ = false;
  std::string previous_;
};

constexpr const char* kNewYork = "EST5EDT,M3.2.0,M11.1.0";
constexpr int64_t kHour = 3600, kDay = 86400;

// 2024-01-01 00:00:00 UTC.
constexpr int64_t kJan2024 = 1704067200;

TEST(CalendarTest, MonthsEndWhereTheNextBegins) {
  TimeZone utc("UTC0");
  struct Case {
    int64_t year, month;
    int64_t start, days;
  } cases[] = {
      {2024, 1, kJan2024, 31},
      {2024, 2, kJan2024 + 31 * kDay, 29},  // leap year
      {2023, 2, 1675209600, 28},
      {2023, 12, kJan2024 - 31 * kDay, 31},  // the end is the next year's first second
      {1970, 1, 0, 31},
  };
  for (const Case& c : cases) {
    auto range = localMonth(c.year, c.month);
    ASSERT_TRUE(range) << c.year << "-" << c.month;
    EXPECT_EQ(range->start, c.start) << c.year << "-" << c.month;
    EXPECT_EQ(range->end - range->start, c.days * kDay) << c.year << "-" << c.month;
    EXPECT_TRUE(range->contains(range->end - 1));
    EXPECT_FALSE(range->contains(range->end));
  }
  EXPECT_FALSE(localMonth(2024, 0));
  EXPECT_FALSE(localMonth(2024, 13));
}

TEST(CalendarTest, DaylightSavingChangesShortenAndLengthenLocalDaysAndMonths) {
  TimeZone newYork(kNewYork);
  // 2024-03-10 is 23 hours long in New York, 2024-11-03 is 25 hours long.
  int64_t march10Noon = 1710086400;  // 2024-03-10 12:00 EDT (16:00 UTC)
  auto spring = localDay(march10Noon);
  ASSERT_TRUE(spring);
  EXPECT_EQ(spring->start, 1710046800);  // 00:00 EST = 05:00 UTC
  EXPECT_EQ(spring->end - spring->start, 23 * kHour);
  int64_t november3Noon = 1730653200;  // 2024-11-03 12:00 EST (17:00 UTC)
  auto fall = localDay(november3Noon);
  ASSERT_TRUE(fall);
  EXPECT_EQ(fall->end - fall->start, 25 * kHour);

  auto march = localMonth(2024, 3);
  ASSERT_TRUE(march);
  EXPECT_EQ(march->start, 1709269200);  // 2024-03-01 00:00 EST
  EXPECT_EQ(march->end - march->start, 31 * kDay - kHour);
}

TEST(CalendarTest, DaysBeforeKeepsTheLocalClockTimeAcrossAChange) {
  TimeZone newYork(kNewYork);
  int64_t march11Noon = 1710172800;  // 2024-03-11 12:00 EDT
  struct Case {
    int64_t days;
    int64_t expected;
  } cases[] = {
      {0, march11Noon},
      {1, march11Noon - kDay},                // 03-10 12:00 EDT
      {2, march11Noon - 2 * kDay + kHour},    // 03-09 12:00 EST: one hour more ago
      {-3, march11Noon + 3 * kDay},           // in the future
      {31, march11Noon - 31 * kDay + kHour},  // 02-09, across the month end
  };
  for (const Case& c : cases) {
    EXPECT_EQ(daysBefore(march11Noon, c.days), c.expected) << c.days;
  }
  EXPECT_FALSE(daysBefore(march11Noon, int64_t{1} << 50));
}

}  // namespace
}  // namespace tarvolin::platform
