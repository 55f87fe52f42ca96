#include <gtest/gtest.h>

#include <bitset>
#include <cstdio>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tarvolin/platform/Regex.h"
#include "tarvolin/platform/Unicode.h"
#include "tarvolin/query/RegexLiteral.h"
#include "tarvolin/query/detail/AsciiFold.h"

namespace tarvolin {
namespace {

// Independent check of the contract: the expression, compiled as the matcher compiles it, must
// match `name`, and the name must then hold the run (ASCII-folded) or one of the run's partners.
::testing::AssertionResult runOccursInMatch(const std::string& pattern,
                                            const std::optional<std::string>& run,
                                            const std::string& name) {
  std::optional<platform::Regex> regex = platform::Regex::compile(pattern);
  if (!regex) return ::testing::AssertionFailure() << "does not compile";
  if (!regex->search(name))
    return ::testing::AssertionFailure() << "example does not match: " << name;
  if (!run || detail::lowerAscii(name).find(*run) != std::string::npos) {
    return ::testing::AssertionSuccess();
  }
  for (const std::string& partner : RegexLiteral::partners(*run)) {
    if (name.find(partner) != std::string::npos) return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure()
         << "neither run '" << *run << "' nor a partner is in " << name;
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

// "k" and "s" also match U+212A (Kelvin sign) and U+017F (long s): the run keeps them, and a
// name spelled with those holds one of the run's partners instead.
TEST(RegexLiteralTest, LettersThatStandForNonAsciiCharactersStayInTheRun) {
  expectRuns({
      {"kelvin",
       "kelvin",
       {"\xE2\x84\xAA"
        "elvin",
        "KELVIN"}},
      {"Sources", "sources", {"\xC5\xBFources", "sources", "\xC5\xBFOURCE\xC5\xBF"}},
      {"desk\\.txt", "desk.txt", {"de\xC5\xBF\xE2\x84\xAA.txt", "DESK.TXT"}},
      {"\\.json$", ".json", {"a.j\xC5\xBFon"}},
      {"ks", "ks", {"\xE2\x84\xAA\xC5\xBF", "K\xC5\xBF"}},
      {"\\Qmask\\E", "mask", {"ma\xC5\xBF\xE2\x84\xAA"}},
      {"report", "report", {"Report"}},
  });
}

TEST(RegexLiteralTest, PartnersOfARun) {
  const std::string kelvin = "\xE2\x84\xAA";
  const std::string longS = "\xC5\xBF";
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"kelvin", {kelvin}},
      {"desk.txt", {longS, kelvin}},  // in the order their letters come, each once
      {"sss", {longS}},
      {"KS", {kelvin, longS}},  // upper case too, though runs are lower-cased
      {"report", {}},
      {".json", {longS}},
      {"a\r\nb", {}},
      {"", {}},
      {"caf\xC3\xA9", {}},
  };
  for (const auto& [run, expected] : cases) {
    EXPECT_EQ(RegexLiteral::partners(run), expected) << run;
  }
}

// The bytes that have partners, and their partners, are exactly what the expression engine
// folds onto ASCII, checked here against every code point of Unicode (the analysis itself only
// asks about the first 65536).
TEST(RegexLiteralTest, CaselessBeyondAsciiIsTheEnginesOwnSet) {
  std::string everything;  // every scalar value from U+0080 up
  for (char32_t c = 0x80; c <= 0x10FFFF; ++c) {
    if (c < 0xD800 || c > 0xDFFF) platform::appendCodePoint(everything, c);
  }
  std::optional<platform::Regex> ascii = platform::Regex::compile("[\\x00-\\x7f]");
  ASSERT_TRUE(ascii.has_value());
  std::bitset<128> expected;
  std::vector<std::vector<std::string>> expectedPartners(128);
  size_t from = 0;
  while (auto hit = ascii->find(everything, from)) {
    from = hit->second;
    std::string character(everything.data() + hit->first, hit->second - hit->first);
    size_t index = 0;
    char32_t code = platform::decodeCodePoint(character, index);
    char pattern[16];
    std::snprintf(pattern, sizeof pattern, "\\x{%x}", static_cast<unsigned>(code));
    std::optional<platform::Regex> one = platform::Regex::compile(pattern);
    ASSERT_TRUE(one.has_value());
    for (unsigned byte = 0; byte < 128; ++byte) {
      char b = static_cast<char>(byte);
      if (!one->search(std::string_view(&b, 1))) continue;
      expected.set(byte);
      expectedPartners[byte].push_back(character);
    }
  }
  EXPECT_EQ(RegexLiteral::caselessBeyondAscii(), expected);
  for (unsigned byte = 0; byte < 128; ++byte) {
    EXPECT_EQ(RegexLiteral::partners(std::string(1, static_cast<char>(byte))),
              expectedPartners[byte])
        << byte;
  }
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
