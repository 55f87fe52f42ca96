#include <gtest/gtest.h>

#include <bitset>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "tarvolin/platform/Regex.h"
#include "tarvolin/platform/Unicode.h"
#include "tarvolin/query/RegexLiteral.h"
#include "tarvolin/query/detail/AsciiFold.h"

namespace tarvolin {
namespace {

// Independent check of the contract: the expression, compiled as the matcher compiles it, must
// match `name`, and the run must then occur in the ASCII-folded name.
::testing::AssertionResult runOccursInMatch(const std::string& pattern,
                                            const std::optional<std::string>& run,
                                            const std::string& name) {
  std::optional<platform::Regex> regex = platform::Regex::compile(pattern);
  if (!regex) return ::testing::AssertionFailure() << "does not compile";
  if (!regex->search(name))
    return ::testing::AssertionFailure() << "example does not match: " << name;
  if (run && detail::lowerAscii(name).find(*run) == std::string::npos) {
    return ::testing::AssertionFailure() << "run '" << *run << "' is not in " << name;
  }
  return ::testing::AssertionSuccess();
}

struct Case {
  std::string pattern;
  std::optional<std::string> run;
  std::vector<std::string> matchingNames;
};

void expectRuns(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    std::optional<std::string> run = RegexLiteral::required(c.pattern);
    EXPECT_EQ(run, c.run) << "pattern: " << c.pattern;
    for (const std::string& name : c.matchingNames) {
      EXPECT_TRUE(runOccursInMatch(c.pattern, run, name)) << "pattern: " << c.pattern;
    }
  }
}

TEST(RegexLiteralTest, LongestRequiredRun) {
  expectRuns({
      {"foo.*bar", "foo", {"foobar", "FOO-x-BAR"}},
      {"ab.cd", "ab", {"abxcd"}},
      {"a|b", std::nullopt, {"b"}},
      {"(cat|dog)food", std::nullopt, {"dogfood"}},
      {"[|]xyz", "xyz", {"|xyz"}},
      {"colou?r", "colo", {"color", "colour"}},
      {"ab+cd", "ab", {"abbbcd"}},
      {"a*bc", "bc", {"bc"}},
      {"Report\\.PDF", "report.pdf", {"report.pdf"}},
      {"\\d+px", "px", {"12px"}},
      {"x", std::nullopt, {"x"}},
      {".*", std::nullopt, {""}},
      {"^Abc$", "abc", {"ABC"}},
      {"caf\xC3\xA9s", "caf", {"caf\xC3\xA9s"}},
      {"a\r\nb", "a\r\nb", {"a\r\nb"}},
      {"ab\\", "ab", {}},
      {"xy(ab", "xy", {}},
  });
}

TEST(RegexLiteralTest, CountedRepetitionEndsTheRunAndItsBracesAreSkipped) {
  expectRuns({
      {"a{2}", std::nullopt, {"aa"}},
      {"xa{2}", "xa", {"xaa"}},
      {"x{1,3}y", std::nullopt, {"xxy"}},
      {"abc{2}de", "abc", {"abccde"}},
      {"abc{2,}de", "abc", {"abcccde"}},
      {"ab{0,3}cd", "cd", {"acd", "abbbcd"}},
      {"ab{00}cd", "cd", {"acd"}},
      {"ab{,2}cd", "cd", {"ab{,2}cd"}},
      {"ab{cd", "cd", {"ab{cd"}},
  });
}

TEST(RegexLiteralTest, EscapesWithArgumentsAndQuotedText) {
  expectRuns({
      {"\\x41bc", "bc", {"Abc"}},
      {"\\x{41}bc", "bc", {"Abc"}},
      {"\\p{Lu}xy", "xy", {"Qxy"}},
      {"\\pLxy", "xy", {"Qxy"}},
      {"\\cAxy", "xy", {"\x01xy"}},
      {"\\0123ab", "3ab", {"\n3ab"}},
      {"(a)\\1xy", "xy", {"aaxy"}},
      {"(?<n>a)\\k<n>bc", "bc", {"aabc"}},
      {"\\Qa.b\\E", "a.b", {"a.b"}},
      {"\\Qab\\.c\\E", "ab\\.c", {"ab\\.c"}},
      {"\\Qab\\E?cd", "cd", {"acd"}},
      {"xa\\E?yz", "yz", {"xyz"}},
      {"xya(?#c)?z", "xy", {"xyz"}},
      {"\\Q[\\Eab|xy", std::nullopt, {"xy"}},
      // Found by fuzzing: "\c" takes the next character whatever it is, so "[" and "]" after it
      // neither open nor close a class.
      {"ab\\c[|xy", std::nullopt, {"xy"}},
      {"[\\c]ab]cd", "cd", {"acd"}},
  });
}

TEST(RegexLiteralTest, ClassesGroupsAndModesAsTheEngineReadsThem) {
  expectRuns({
      {"[]a]bc", "bc", {"]bc"}},
      {"[^]x]yz", "yz", {"ayz"}},
      {"[[:alpha:]]xy", "xy", {"qxy"}},
      {"[a[](bc)?de", "de", {"ade"}},
      {"(a[)]bc)?xy", "xy", {"xy"}},
      {"(?#[)ab|xy", std::nullopt, {"xy"}},
      {"(?x)a b c", std::nullopt, {"abc"}},
      {"(?i)abc", "abc", {"ABC"}},
      // A bracket glued to a combining accent is still a group to the engine.
      {"(\xCC\x81\x61\x62)?xy", std::nullopt, {"xy"}},
  });
}

// "k" and "s" also match U+212A (Kelvin sign) and U+017F (long s): a run never holds them, so a
// name spelled with those still passes the prefilter.
TEST(RegexLiteralTest, LettersThatStandForNonAsciiCharactersEndTheRun) {
  expectRuns({
      {"kelvin",
       "elvin",
       {"\xE2\x84\xAA"
        "elvin",
        "KELVIN"}},
      {"Sources", "ource", {"\xC5\xBFources", "sources"}},
      {"desk\\.txt", ".txt", {"de\xC5\xBF\xE2\x84\xAA.txt"}},
      {"\\.json$", ".j", {"a.j\xC5\xBFon"}},
      {"ks", std::nullopt, {"\xE2\x84\xAA\xC5\xBF"}},
      {"\\Qmask\\E", "ma", {"ma\xC5\xBF\xE2\x84\xAA"}},
      {"report", "report", {"Report"}},
  });
}

// The bytes the analysis leaves out are exactly those the expression engine folds onto a
// character beyond ASCII, checked here against every code point of Unicode (the analysis
// itself only asks about the first 65536).
TEST(RegexLiteralTest, CaselessBeyondAsciiIsTheEnginesOwnSet) {
  std::string everything;  // every scalar value from U+0080 up
  for (char32_t c = 0x80; c <= 0x10FFFF; ++c) {
    if (c < 0xD800 || c > 0xDFFF) platform::appendCodePoint(everything, c);
  }
  std::optional<platform::Regex> ascii = platform::Regex::compile("[\\x00-\\x7f]");
  ASSERT_TRUE(ascii.has_value());
  std::bitset<128> expected;
  size_t from = 0;
  while (auto hit = ascii->find(everything, from)) {
    from = hit->second;
    std::string_view character(everything.data() + hit->first, hit->second - hit->first);
    size_t index = 0;
    char32_t code = platform::decodeCodePoint(character, index);
    char pattern[16];
    std::snprintf(pattern, sizeof pattern, "\\x{%x}", static_cast<unsigned>(code));
    std::optional<platform::Regex> one = platform::Regex::compile(pattern);
    ASSERT_TRUE(one.has_value());
    for (unsigned byte = 0; byte < 128; ++byte) {
      char b = static_cast<char>(byte);
      if (one->search(std::string_view(&b, 1))) expected.set(byte);
    }
  }
  EXPECT_EQ(RegexLiteral::caselessBeyondAscii(), expected);
  for (char letter : {'k', 'K', 's', 'S'}) {
    EXPECT_TRUE(expected[static_cast<unsigned char>(letter)]) << letter;
  }
}

TEST(RegexLiteralTest, ContainsAlternation) {
  const std::pair<const char*, bool> cases[] = {
      {"a|b", true},      {"(a|b)c", true}, {"[a]|b", true},     {"[|]", false}, {"\\|", false},
      {"\\Q|\\E", false}, {"[]|]", false},  {"|\xCC\x81", true}, {"abc", false},
  };
  for (const auto& [pattern, expected] : cases) {
    EXPECT_EQ(RegexLiteral::containsAlternation(pattern), expected) << pattern;
  }
}

TEST(RegexLiteralTest, IsQuantified) {
  auto quantified = [](std::vector<std::string_view> characters, size_t index) {
    return RegexLiteral::isQuantified(characters, index);
  };
  EXPECT_TRUE(quantified({"a", "?"}, 1));
  EXPECT_TRUE(quantified({"a", "*"}, 1));
  EXPECT_FALSE(quantified({"a", "+"}, 1));
  EXPECT_FALSE(quantified({"a"}, 1));
  EXPECT_TRUE(quantified({"a", "{", "0", ",", "3", "}"}, 1));
  EXPECT_TRUE(quantified({"a", "{", ",", "2", "}"}, 1));
  EXPECT_FALSE(quantified({"a", "{", "2", "}"}, 1));
  EXPECT_FALSE(quantified({"a", "{", "1", ",", "}"}, 1));
  EXPECT_FALSE(quantified({"a", "{", "1", "0", "}"}, 1));
}

TEST(RegexLiteralTest, LongHostileInputsStayLinear) {
  // 200000 repetitions of each unit, then "xyz"; only sizes are printed on failure.
  struct Hostile {
    const char* unit;
    size_t runSize;  // 0: no run
    const char* runEnd;
  };
  const Hostile cases[] = {
      {"{", 3, "xyz"},
      {"(", 0, ""},
      {"[", 0, ""},
      {"(?#", 0, ""},
      {"{a", 4, "axyz"},
      {"a{0", 4, "0xyz"},
      {"\\", 100003, "\\xyz"},    // escaped backslashes are literal
      {"\\Q", 400001, "\\qxyz"},  // everything after the first \Q is quoted (and lower-cased)
  };
  for (const Hostile& c : cases) {
    std::string pattern;
    for (int i = 0; i < 200000; ++i) pattern += c.unit;
    std::optional<std::string> run = RegexLiteral::required(pattern + "xyz");
    EXPECT_EQ(run ? run->size() : 0, c.runSize) << c.unit;
    if (run) {
      EXPECT_TRUE(run->ends_with(c.runEnd)) << c.unit;
    }
  }
}

}  // namespace
}  // namespace tarvolin
