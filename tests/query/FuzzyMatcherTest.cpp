#include <gtest/gtest.h>

#include <string>

#include "tarvolin/query/FuzzyMatcher.h"

namespace tarvolin {
namespace {

TEST(FuzzyMatcherTest, Scores) {
  struct Case {
    std::string needle;
    std::string haystack;
    std::optional<FuzzyMatcher::Result> expected;
  };
  const std::string longGap = "a" + std::string(25, 'b') + "c";
  const Case cases[] = {
      {"abc", "abc", FuzzyMatcher::Result{26, 0}},        // 10 + 8 + 8
      {"abc", "ABC", FuzzyMatcher::Result{26, 0}},        // the haystack is folded
      {"abc", "a_b_c", FuzzyMatcher::Result{22, 0}},      // two word starts, no penalty
      {"fb", "FooBar", FuzzyMatcher::Result{16, 0}},      // camel hump
      {"fbz", "fooBarBaz", FuzzyMatcher::Result{12, 0}},  // "z" mid-word: gap 4 is a penalty
      {"bar", "foo-bar", FuzzyMatcher::Result{22, 4}},    // a word start earns 6, not 10
      {"bc", "abc", FuzzyMatcher::Result{8, 1}},          // a late first byte never earns +8
      {"ab", "xAB", FuzzyMatcher::Result{14, 1}},         // hump only after a lower-case byte
      {"ab", "axxab", FuzzyMatcher::Result{7, 0}},    // greedy: no realignment on the later "ab"
      {"ac", longGap, FuzzyMatcher::Result{-10, 0}},  // penalty capped at 20
      {"ac", "a" + std::string(19, 'b') + "c", FuzzyMatcher::Result{-9, 0}},
      {"\xC3\xA9t", "x\xC3\xA9t\xC3\xA9", FuzzyMatcher::Result{16, 1}},  // raw bytes
      {"abcd", "abc", std::nullopt},
      {"", "abc", std::nullopt},
      {"a", "", std::nullopt},
      {"cba", "abc", std::nullopt},
      {"ABC", "abc", std::nullopt},  // the needle must come lower-cased
  };
  for (const Case& c : cases) {
    EXPECT_EQ(FuzzyMatcher::match(c.needle, c.haystack), c.expected)
        << c.needle << " in " << c.haystack;
  }
  EXPECT_LT(FuzzyMatcher::match("ac", longGap)->score, FuzzyMatcher::minimumScore(2));
}

TEST(FuzzyMatcherTest, EligibilityAndThreshold) {
  EXPECT_FALSE(FuzzyMatcher::isEligible("ab"));
  EXPECT_TRUE(FuzzyMatcher::isEligible("abc"));
  EXPECT_TRUE(FuzzyMatcher::isEligible(std::string(32, 'x')));
  EXPECT_FALSE(FuzzyMatcher::isEligible(std::string(33, 'x')));
  EXPECT_EQ(FuzzyMatcher::minimumScore(3), 12);
  EXPECT_EQ(FuzzyMatcher::minimumScore(32), 128);
}

}  // namespace
}  // namespace tarvolin
