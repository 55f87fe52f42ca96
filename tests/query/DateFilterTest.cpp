// dm: filters end to end: the parser's forms over records with chosen modification times, judged
// in the process's time zone by the matcher.

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <set>
#include <string>

#include "support/IndexFixture.h"
#include "support/TempTree.h"
#include "tarvolin/query/Matcher.h"
#include "tarvolin/query/QueryParser.h"

namespace tarvolin {
namespace {

class DateFilterTest : public ::testing::Test {
 protected:
  void useTimeZone(const char* rule) {
    ::setenv("TZ", rule, 1);
    ::tzset();
  }
  void TearDown() override {
    ::unsetenv("TZ");
    ::tzset();
  }

  // The names of the records `query` matches in an index of `entries`.
  std::set<std::string> namesMatching(const std::vector<testing::FixtureEntry>& entries,
                                      const std::string& query) {
    auto store = testing::writeAndLoad(testing::buildTree(entries), tree_ / "index.bin");
    Matcher matcher(store);
    std::set<std::string> names;
    for (const Match& match : matcher.match(QueryParser::parse(query))) {
      names.insert(store->name(match.id));
    }
    return names;
  }

  testing::TempTree tree_;
};

constexpr uint32_t kDay = 86400;

TEST_F(DateFilterTest, RelativeFormsAgainstNow) {
  useTimeZone("UTC0");
  auto now = static_cast<uint32_t>(std::time(nullptr));
  uint32_t todayStart = now - now % kDay;
  std::vector<testing::FixtureEntry> entries = {
      {"/d/today.txt", 1, todayStart},
      {"/d/yesterday.txt", 1, todayStart - 1},
      {"/d/six-days.txt", 1, now - 6 * kDay - 10},
      {"/d/future.txt", 1, now + 4 * kDay},
      {"/d/unfilled.txt", std::nullopt, now},  // no attributes: no date filter matches it
  };
  struct Case {
    const char* query;
    std::set<std::string> expected;
  } cases[] = {
      {"dm:today", {"today.txt"}},
      {"DM:TODAY", {"today.txt"}},
      {"dm:<1d", {"today.txt", "yesterday.txt", "future.txt"}},
      {"dm:<7d", {"today.txt", "yesterday.txt", "six-days.txt", "future.txt"}},
      {"dm:<6d", {"today.txt", "yesterday.txt", "future.txt"}},
      {"dm:<-3D", {"future.txt"}},  // within "minus three days": three days from now on
      {"dm:<0d", {"future.txt"}},
      {"!dm:today", {"d", "yesterday.txt", "six-days.txt", "future.txt", "unfilled.txt", ""}},
  };
  for (const Case& c : cases) EXPECT_EQ(namesMatching(entries, c.query), c.expected) << c.query;
}

TEST_F(DateFilterTest, MonthFormsEndAtLocalMidnightAcrossADaylightSavingChange) {
  useTimeZone("EST5EDT,M3.2.0,M11.1.0");  // New York: EDT from 2024-03-10 to 2024-11-03
  std::vector<testing::FixtureEntry> entries = {
      {"/m/feb-last.txt", 1, 1709269199},   // 2024-02-29 23:59:59 EST
      {"/m/mar-first.txt", 1, 1709269200},  // 2024-03-01 00:00:00 EST
      {"/m/mar-last.txt", 1, 1711943999},   // 2024-03-31 23:59:59 EDT
      {"/m/apr-first.txt", 1, 1711944000},  // 2024-04-01 00:00:00 EDT
      {"/m/dec-last.txt", 1, 1704085199},   // 2023-12-31 23:59:59 EST
      {"/m/jan-first.txt", 1, 1704085200},  // 2024-01-01 00:00:00 EST
  };
  struct Case {
    const char* query;
    std::set<std::string> expected;
  } cases[] = {
      {"dm:2024-3", {"mar-first.txt", "mar-last.txt"}},
      {"dm:2024-03", {"mar-first.txt", "mar-last.txt"}},
      {"dm:2024-2", {"feb-last.txt"}},
      {"dm:2024-4", {"apr-first.txt"}},
      {"dm:2023-12", {"dec-last.txt"}},
      {"dm:2024-1", {"jan-first.txt"}},
      {"dm:2024-3 | dm:2023-12", {"mar-first.txt", "mar-last.txt", "dec-last.txt"}},
      {"dm:1999-3", {}},
  };
  for (const Case& c : cases) EXPECT_EQ(namesMatching(entries, c.query), c.expected) << c.query;
}

}  // namespace
}  // namespace tarvolin
