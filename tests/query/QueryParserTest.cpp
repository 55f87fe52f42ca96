#include <gtest/gtest.h>

#include "support/QueryPrinting.h"
#include "tarvolin/query/QueryParser.h"

namespace tarvolin {
namespace {

Term sub(std::string text) { return Term::substring(std::move(text)); }
Term ext(std::string text) { return Term::ext(std::move(text)); }
Term notT(Term term) { return Term::not_(std::move(term)); }
Term size(SizeComparison comparison) { return Term::size(comparison); }
Term date(DateConstraint constraint) { return Term::dateModified(constraint); }
Term type(TypeConstraint kind) { return Term::type(kind); }

struct Case {
  std::string text;
  std::vector<Term> andTerms;
  std::vector<std::vector<Term>> orGroups = {};
};

void expectParses(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    Query query = QueryParser::parse(c.text);
    EXPECT_EQ(query, (Query{c.andTerms, c.orGroups, c.text})) << "text: " << c.text;
    EXPECT_EQ(query.raw, c.text) << "raw is kept byte for byte";
  }
}

TEST(QueryParserTest, OperatorsAndAlternatives) {
  expectParses({
      {"report", {sub("report")}},
      {"ext:md size:>10mb", {ext("md"), size(SizeComparison::greaterThan(10485760))}},
      {"ext:txt | ext:bin", {}, {{ext("txt")}, {ext("bin")}}},
      {"ext:md|ext:txt a", {}, {{ext("md")}, {ext("txt"), sub("a")}}},
      {"a | | b", {}, {{sub("a")}, {sub("b")}}},
      {".md contains:foo", {ext("md"), Term::contains("foo")}},
      {"path:playground", {Term::pathContains("playground")}},
      {"PATH:Src", {Term::pathContains("Src")}},
      {"in:x", {Term::contains("x")}},
      {"contains:\"foo bar\"", {Term::contains("foo bar")}},
      {"unknown:x C:\\x", {sub("unknown:x"), sub("C:\\x")}},
      {"EXT:Md,.PNG,,", {ext("md,png")}},
  });
}

TEST(QueryParserTest, DanglingOperatorsJoinOnlyForValueOperators) {
  expectParses({
      {"ext: md", {ext("md")}},
      {"size: >1kb path: a b",
       {size(SizeComparison::greaterThan(1024)), Term::pathContains("a"), sub("b")}},
      {"contains: \"a b\"", {Term::contains("a b")}},
      {"folder: x", {type(TypeConstraint::folder), sub("x")}},
      {"ext: | x", {}, {{sub("ext:")}, {sub("x")}}},
      {"ext:", {sub("ext:")}},
      {"ext: path: x", {ext("path:"), sub("x")}},
  });
}

TEST(QueryParserTest, LonePipesAreSearchedAsText) {
  expectParses({
      {"foo |", {sub("foo"), sub("|")}},
      {"| foo", {sub("|"), sub("foo")}},
      {"|", {sub("|")}},
      {"\"\" | foo", {sub("|"), sub("foo")}},
  });
}

TEST(QueryParserTest, NegationParityAndTypeOperators) {
  expectParses({
      {"!!ext:md", {ext("md")}},
      {"!ext:md", {notT(ext("md"))}},
      {"!!!x", {notT(sub("x"))}},
      {"!folder:", {notT(type(TypeConstraint::folder))}},
      {"!folder:src", {sub("!folder:src")}},
      {"!!folder:src", {type(TypeConstraint::folder), sub("src")}},
      {"!folder", {notT(sub("folder"))}},
      {"!", {sub("!")}},
      {"!!!", {sub("!!!")}},
      {"!\"\"", {sub("!\"\"")}},
      {"folder:src", {type(TypeConstraint::folder), sub("src")}},
      {"FILE:.MD", {type(TypeConstraint::file), ext("md")}},
      {"app:!x", {type(TypeConstraint::app), notT(sub("x"))}},
      {"folder:\"\"", {type(TypeConstraint::folder), sub("\"\"")}},
      {"folder:\"a", {type(TypeConstraint::folder), sub("a")}},
      // "!" joined to an accent is another character, not a negation.
      {"!\xCC\x81x", {sub("!\xCC\x81x")}},
  });
}

TEST(QueryParserTest, QuotedAndRegexTokens) {
  expectParses({
      {"a \"hello  world\" b", {sub("a"), Term::exactPhrase("hello  world"), sub("b")}},
      {"\"\"", {}},
      {"\"", {}},
      {"\"abc", {sub("abc")}},
      {"\"ab\"c\"", {Term::exactPhrase("ab\"c")}},
      {"x\"a b\"", {sub("x\"a b\"")}},
      {"\"a | b\"", {Term::exactPhrase("a | b")}},
      {"/^a.*z$/", {Term::regex("^a.*z$")}},
      {"/a b/ c", {Term::regex("a b"), sub("c")}},
      {"/a|b/ x", {Term::regex("a|b"), sub("x")}},
      {"/a\"b/", {Term::regex("a\"b")}},
      {"/foo/", {Term::regex("foo")}},
      {"/usr/lib/", {sub("/usr/lib/")}},
      {"/usr/li+b/", {Term::regex("usr/li+b")}},
      {"/", {sub("/")}},
      {"/abc", {sub("/abc")}},
      {"a/b/ c", {sub("a/b/"), sub("c")}},
      {"/unclosed regex | x", {sub("/unclosed regex | x")}},
  });
}

TEST(QueryParserTest, Extensions) {
  expectParses({
      {".7z", {ext("7z")}},
      {".MD", {ext("md")}},
      {".abcdefgh", {ext("abcdefgh")}},
      {".abcdefghi", {sub(".abcdefghi")}},
      {".123", {sub(".123")}},
      {".tar.gz", {sub(".tar.gz")}},
      {".", {sub(".")}},
      {".\xC3\x89t\xC3\xA9", {ext("\xC3\xA9t\xC3\xA9")}},  // ".Été": letters of any script
      {"ext:,", {sub("ext:,")}},
      {"ext:.", {sub("ext:.")}},
  });
}

TEST(QueryParserTest, Sizes) {
  constexpr uint64_t max = UINT64_MAX;
  expectParses({
      {"size:0", {size(SizeComparison::equalTo(0))}},
      {"size:-0", {size(SizeComparison::equalTo(0))}},
      {"size:+5KB", {size(SizeComparison::equalTo(5120))}},
      {"size:<1Gb", {size(SizeComparison::lessThan(1073741824))}},
      {"size:>18446744073709551615b", {size(SizeComparison::greaterThan(max))}},
      {"size:>17179869183gb", {size(SizeComparison::greaterThan(17179869183ull << 30))}},
      {"size:>17179869184gb", {sub("size:>17179869184gb")}},
      {"size:18446744073709551616", {sub("size:18446744073709551616")}},
      {"size:1.5mb", {sub("size:1.5mb")}},
      {"size:>=1kb", {sub("size:>=1kb")}},
      {"size:-1", {sub("size:-1")}},
      {"size:5tb", {sub("size:5tb")}},
      {"size:b", {sub("size:b")}},
      {"size:>", {sub("size:>")}},
      {"size:big", {sub("size:big")}},
      {"size:", {sub("size:")}},
      {"size:\xD9\xA1", {sub("size:\xD9\xA1")}},  // an Arabic-Indic digit is not a number here
      {"size:1\xE2\x84\xAA\x42", {size(SizeComparison::equalTo(1024))}},  // Kelvin sign: k
  });
}

TEST(QueryParserTest, Dates) {
  expectParses({
      {"dm:today", {date(DateConstraint::today())}},
      {"DM:ToDay", {date(DateConstraint::today())}},
      {"dm:<7d", {date(DateConstraint::withinDays(7))}},
      {"dm:<-3D", {date(DateConstraint::withinDays(-3))}},
      {"dm:<d", {sub("dm:<d")}},
      {"dm:<7x", {sub("dm:<7x")}},
      {"dm:2024-5", {date(DateConstraint::month(2024, 5))}},
      {"dm:2024--05", {date(DateConstraint::month(2024, 5))}},
      {"dm:2024-05-01", {sub("dm:2024-05-01")}},
      {"dm:2024-13", {sub("dm:2024-13")}},
      {"dm:2024-0", {sub("dm:2024-0")}},
      {"dm:yesterday", {sub("dm:yesterday")}},
      {"dm:", {sub("dm:")}},
  });
}

TEST(QueryParserTest, BlankTextsAndInvalidBytes) {
  expectParses({
      {"", {}},
      {"   \t ", {}},
      {"\xC2\xA0 x \xE3\x80\x80", {sub("x")}},  // no-break and ideographic spaces are trimmed
      {"\nx", {sub("\nx")}},                    // line breaks are not
      {"a  b", {sub("a"), sub("b")}},
  });
  Query query = QueryParser::parse("a\xFF\x62");
  EXPECT_EQ(query.andTerms, std::vector<Term>{sub("a\xEF\xBF\xBD\x62")});
  EXPECT_EQ(query.raw, "a\xFF\x62");
}

TEST(QueryParserTest, HostileTextsStillGiveAQuery) {
  const std::string bangs(100000, '!');
  const std::string brackets = std::string(50000, '(') + std::string(50000, '[');
  const std::string manyPipes = [] {
    std::string text;
    for (int i = 0; i < 20000; ++i) text += "ext: | ";
    return text;
  }();
  expectParses({
      {bangs, {sub(bangs)}},
      {brackets, {sub(brackets)}},
      {"\"" + brackets, {sub(brackets)}},
      {std::string("a\0b", 3), {sub(std::string("a\0b", 3))}},
  });
  Query query = QueryParser::parse(manyPipes);
  EXPECT_EQ(query.orGroups.size(), 20000u);
  EXPECT_EQ(query, QueryParser::parse(manyPipes));
}

TEST(QueryParserTest, SplitTopLevelOr) {
  struct SplitCase {
    std::string text;
    std::vector<std::string> groups;
  };
  const SplitCase cases[] = {
      {"ext:txt | ext: bin", {"ext:txt", "ext: bin"}},
      {" a  b|c ", {"a b", "c"}},
      {"|", {}},
      {"  ", {}},
      {"\"a | b\" | /x|y/", {"\"a | b\"", "/x|y/"}},
  };
  for (const SplitCase& c : cases) {
    EXPECT_EQ(QueryParser::splitTopLevelOr(c.text), c.groups) << c.text;
  }
}

}  // namespace
}  // namespace tarvolin
