#include <gtest/gtest.h>

#include "support/QueryPrinting.h"
#include "tarvolin/query/Query.h"

namespace tarvolin {
namespace {

Term sub(const char* text) { return Term::substring(text); }

TEST(QueryTest, EmptyQueryRequiresNothing) {
  Query query{.raw = "   "};
  EXPECT_TRUE(query.isEmpty());
  EXPECT_FALSE(query.requiresAttributes());
  EXPECT_FALSE(query.requiresContentScan());
  EXPECT_FALSE((Query{.orGroups = {{sub("a")}, {sub("b")}}}.isEmpty()));
}

TEST(QueryTest, RequirementsLookThroughAnyDepthOfNot) {
  struct Case {
    Term term;
    bool attributes;
    bool content;
  };
  const Case cases[] = {
      {Term::not_(Term::not_(Term::size(SizeComparison::greaterThan(5)))), true, false},
      {Term::not_(Term::not_(Term::not_(Term::dateModified(DateConstraint::today())))), true,
       false},
      {Term::not_(Term::contains("x")), false, true},
      {Term::not_(Term::type(TypeConstraint::folder)), false, false},
      {Term::pathContains("size"), false, false},
  };
  for (const Case& c : cases) {
    Query inAnd{.andTerms = {sub("a"), c.term}};
    Query inGroup{.orGroups = {{sub("a")}, {sub("b"), c.term}}};
    for (const Query& query : {inAnd, inGroup}) {
      EXPECT_EQ(query.requiresAttributes(), c.attributes) << c.term.description();
      EXPECT_EQ(query.requiresContentScan(), c.content) << c.term.description();
    }
  }
}

TEST(QueryTest, WithoutRepeatsKeepsTheFirstOfIdenticalTermsAndGroups) {
  Term notA = Term::not_(sub("a"));
  Term big = Term::size(SizeComparison::greaterThan(5));
  struct Case {
    Query query;
    Query expected;
  };
  const Case cases[] = {
      {{.andTerms = {sub("a"), sub("b"), sub("a")}, .raw = "r"},
       {.andTerms = {sub("a"), sub("b")}, .raw = "r"}},
      // Only byte-identical terms are repeats: case and kind differ here.
      {{.andTerms = {sub("A"), sub("a"), Term::exactPhrase("a"), notA, notA}},
       {.andTerms = {sub("A"), sub("a"), Term::exactPhrase("a"), notA}}},
      {{.andTerms = {big, Term::size(SizeComparison::lessThan(5)), big}},
       {.andTerms = {big, Term::size(SizeComparison::lessThan(5))}}},
      // A single group left is the plain list.
      {{.orGroups = {{sub("a"), sub("a")}, {sub("a")}}}, {.andTerms = {sub("a")}}},
      {{.orGroups = {{sub("a")}, {sub("b"), sub("c")}, {sub("a")}, {sub("b"), sub("c"), sub("b")}}},
       {.orGroups = {{sub("a")}, {sub("b"), sub("c")}}}},
      // Groups are compared in order: [b, c] and [c, b] stay two groups.
      {{.orGroups = {{sub("b"), sub("c")}, {sub("c"), sub("b")}}},
       {.orGroups = {{sub("b"), sub("c")}, {sub("c"), sub("b")}}}},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.query.withoutRepeats(), c.expected);
    EXPECT_EQ(c.query.withoutRepeats().termCount(), c.expected.termCount());
  }
}

TEST(QueryTest, SplittingContentTermsKeepsOrderAndNegatedContains) {
  Query query{.andTerms = {Term::contains("one"), sub("a"), Term::not_(Term::contains("x")),
                           Term::contains("two")},
              .raw = " raw "};
  Query::ContentSplit split = query.splittingContentTerms();
  EXPECT_EQ(split.name,
            (Query{.andTerms = {sub("a"), Term::not_(Term::contains("x"))}, .raw = " raw "}));
  EXPECT_EQ(split.contentNeedles, (std::vector<std::string>{"one", "two"}));

  Query groups{.orGroups = {{Term::contains("a")}, {sub("b"), Term::contains("c")}, {sub("d")}}};
  split = groups.splittingContentTerms();
  EXPECT_EQ(split.name, (Query{.orGroups = {{sub("b")}, {sub("d")}}}));
  EXPECT_EQ(split.contentNeedles, (std::vector<std::string>{"a", "c"}));
}

TEST(QueryTest, EqualityIsStructuralWithStringsComparedAsText) {
  // "é" precomposed and as e + combining acute are the same text.
  EXPECT_EQ(sub("caf\xC3\xA9"), sub("cafe\xCC\x81"));
  EXPECT_EQ(Term::not_(Term::ext("caf\xC3\xA9")), Term::not_(Term::ext("cafe\xCC\x81")));
  EXPECT_EQ((Query{.andTerms = {sub("x")}, .raw = "\xC3\xA9"}),
            (Query{.andTerms = {sub("x")}, .raw = "e\xCC\x81"}));

  const Term distinct[] = {
      sub("a"),
      Term::exactPhrase("a"),
      Term::regex("a"),
      Term::ext("a"),
      Term::pathContains("a"),
      Term::contains("a"),
      Term::not_(sub("a")),
      Term::not_(Term::not_(sub("a"))),
      Term::size(SizeComparison::greaterThan(5)),
      Term::size(SizeComparison::lessThan(5)),
      Term::size(SizeComparison::equalTo(5)),
      Term::size(SizeComparison::equalTo(6)),
      Term::dateModified(DateConstraint::month(2024, 5)),
      Term::dateModified(DateConstraint::withinDays(2024)),
      Term::dateModified(DateConstraint::month(2024, 6)),
      Term::dateModified(DateConstraint::today()),
      Term::type(TypeConstraint::file),
      Term::type(TypeConstraint::folder),
  };
  for (size_t i = 0; i < std::size(distinct); ++i) {
    for (size_t j = 0; j < std::size(distinct); ++j) {
      EXPECT_EQ(distinct[i] == distinct[j], i == j)
          << distinct[i].description() << " vs " << distinct[j].description();
    }
  }
  EXPECT_EQ(Term::dateModified(DateConstraint::today()),
            Term::dateModified(DateConstraint::today()));
  EXPECT_EQ(DateConstraint(), DateConstraint::withinDays(0));
  // Lists compare in order.
  EXPECT_NE((Query{.andTerms = {sub("a"), sub("b")}}), (Query{.andTerms = {sub("b"), sub("a")}}));
  EXPECT_NE((Query{.andTerms = {sub("a")}}), (Query{.orGroups = {{sub("a")}}}));
}

TEST(QueryTest, DeepNotChainsCompareByParity) {
  Term a = sub("x");
  Term b = sub("x");
  for (int i = 0; i < 1000; ++i) {
    a = Term::not_(std::move(a));
    b = Term::not_(std::move(b));
  }
  EXPECT_EQ(a, b);
  EXPECT_NE(a, Term::not_(a));
  bool negated = true;
  EXPECT_EQ(a.strippingNots(negated), sub("x"));
  EXPECT_FALSE(negated);
  Term copy = a;
  EXPECT_EQ(copy, a);
}

}  // namespace
}  // namespace tarvolin
